// IPv4 multicast with source filters, for real: a receiver namespace and a
// sender namespace of the test's own, joined by a veth pair. The sender
// namespace holds three source addresses, one socket bound to each.
#include <cimcore/CIMIpConnectionUdp.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/ip/multicast.hpp>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace {

using cimtest::Completion;
namespace ip = boost::asio::ip;

const char* const kSources[] = {"10.213.0.2", "10.213.0.3", "10.213.0.4"};

// Moves the calling thread into a named network namespace for its lifetime.
class InNamespace {
public:
    explicit InNamespace(const std::string& name)
        : m_home(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
        const int target = ::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        if (m_home < 0 || target < 0 || ::setns(target, CLONE_NEWNET) != 0) {
            throw std::runtime_error("cannot enter network namespace " + name);
        }
        ::close(target);
    }
    ~InNamespace() {
        if (::setns(m_home, CLONE_NEWNET) != 0) {
            std::abort();  // the rest of the process would run in the wrong place
        }
        ::close(m_home);
    }

private:
    int m_home;
};

// The test bodies run in the receiver namespace.
class MulticastTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        const std::string id = std::to_string(::getpid()), rx = "cim-rx-" + id, tx = "cim-tx-" + id;
        s_rx = rx;
        s_tx = tx;
        std::string script = "ip netns add " + rx + " && ip netns add " + tx + " && ip link add v" +
                             rx + " netns " + rx + " type veth peer name v" + tx + " netns " + tx +
                             " && ip -n " + rx + " addr add 10.213.0.1/24 dev v" + rx;
        for (const char* source : kSources) {
            script += " && ip -n " + tx + " addr add " + source + "/24 dev v" + tx;
        }
        for (const std::string& space : {rx, tx}) {
            script += " && ip -n " + space + " link set v" + space + " up && ip -n " + space +
                      " route add 224.0.0.0/4 dev v" + space;
        }
        // The tool's own message says why, when it fails.
        FILE* const output = ::popen(("(" + script + ") 2>&1").c_str(), "r");
        char message[512] = "";
        const size_t length = output ? std::fread(message, 1, sizeof message - 1, output) : 0;
        if (output == nullptr || ::pclose(output) != 0) {
            s_skip = "cannot set up network namespaces" +
                     std::string(::geteuid() != 0 ? " (not root)" : "") + ": " +
                     std::string(message, length);
            TearDownTestSuite();
        }
    }
    static void TearDownTestSuite() {
        // Removing a namespace removes its end of the veth pair, and so both.
        std::system(("ip netns del " + s_rx + " 2>/dev/null; ip netns del " + s_tx + " 2>/dev/null")
                        .c_str());
    }
    void SetUp() override {
        if (!s_skip.empty()) {
            GTEST_SKIP() << s_skip;
        }
        {
            InNamespace tx(s_tx);
            for (const char* source : kSources) {
                m_senders.emplace_back(cimtest::PeerContext(),
                                       ip::udp::endpoint(ip::make_address(source), 0));
            }
        }
        m_inReceiver = std::make_unique<InNamespace>(s_rx);
    }
    void TearDown() override { m_inReceiver.reset(); }

    // A plain socket that receives the group from every source.
    static ip::udp::socket GroupListener(const std::string& group, uint16_t port) {
        ip::udp::socket socket(cimtest::PeerContext(), ip::udp::v4());
        socket.set_option(boost::asio::socket_base::reuse_address(true));
        socket.bind({ip::address_v4::any(), port});
        socket.set_option(ip::multicast::join_group(ip::make_address(group)));
        return socket;
    }
    static ip::udp::socket SenderSideListener(const std::string& group, uint16_t port) {
        InNamespace tx(s_tx);
        return GroupListener(group, port);
    }
    void SendFrom(size_t source, const std::string& group, uint16_t port, const std::string& text) {
        m_senders[source].send_to(boost::asio::buffer(text), {ip::make_address(group), port});
    }
    // The next datagram on a plain socket, or "" when none comes in time.
    static std::string Receive(ip::udp::socket& socket) {
        char data[1500];
        if (!cimtest::WaitReadable(socket.native_handle(),
                                   cimtest::Scaled(std::chrono::seconds(2)))) {
            return "";
        }
        return std::string(data, socket.receive(boost::asio::buffer(data)));
    }
    // The next datagram through the connection, or the error's number.
    static std::string Read(CIM::TCCIMIpConnectionUdp& connection) {
        std::vector<uint8_t> buffer(1500);
        Completion read;
        connection.ReadData(buffer, uint16_t(2000), read.Callback());
        const auto result = read.Wait();
        return result.error ? "error " + std::to_string(result.error.value())
                            : std::string(buffer.begin(), buffer.begin() + long(result.bytes));
    }
    // Whether this namespace has joined the group (the table shows it in hex).
    static bool Joined(const std::string& group) {
        char hex[9];
        std::snprintf(hex, sizeof hex, "%08X", htonl(ip::make_address_v4(group).to_uint()));
        return cimtest::ReadFile("/proc/thread-self/net/igmp").find(hex) != std::string::npos;
    }

    static std::string s_rx, s_tx, s_skip;
    cimtest::TestTask m_task;
    std::vector<ip::udp::socket> m_senders;
    std::unique_ptr<InNamespace> m_inReceiver;
};

std::string MulticastTest::s_rx, MulticastTest::s_tx, MulticastTest::s_skip;

// A datagram that a filter lets through is queued on the connection's socket
// in the same delivery that reaches the unfiltered listener: once the
// listener has it, the connection's next datagram tells whether it passed.
TEST_F(MulticastTest, SourceFiltersSelectTheSendersAndOwnDatagramsDoNotComeBack) {
    const std::string group = "239.10.1.1";
    ip::udp::socket listener = GroupListener(group, 0);
    const uint16_t port = listener.local_endpoint().port();
    CIM::TCCIMIpConnectionUdp joined(m_task.Get()), except(m_task.Get()), any(m_task.Get());
    ASSERT_TRUE(
        joined.ConnectMulticast({CIM::IPv4, group, port, true, {kSources[0], kSources[1]}}));
    ASSERT_TRUE(except.ConnectMulticast({CIM::IPv4, group, port, false, {kSources[1]}}));
    ASSERT_TRUE(any.ConnectMulticast({CIM::IPv4, group, port, true, {}}));  // empty join list
    try {
        joined.ConnectMulticast({CIM::IPv4, group, port, true, {}});
        ADD_FAILURE() << "a second ConnectMulticast did not raise";
    } catch (const boost::system::system_error& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("open"));
    }

    // Every datagram a filter blocks is followed by one it lets through.
    const std::pair<size_t, const char*> sends[] = {{2, "a"}, {1, "b"}, {0, "c"}};
    for (const auto& [source, text] : sends) {
        SendFrom(source, group, port, text);
        EXPECT_EQ(Receive(listener), text);
    }
    const std::pair<CIM::TCCIMIpConnectionUdp*, std::string> expectations[] = {
        {&joined, "bc"}, {&except, "ac"}, {&any, "abc"}};
    for (const auto& [connection, expected] : expectations) {
        for (const char text : expected) {
            EXPECT_EQ(Read(*connection), std::string(1, text)) << expected;
        }
    }

    // Its own datagram reaches the other namespace, but not this one.
    ip::udp::socket remote = SenderSideListener(group, port);
    Completion sent;
    any.SendData({'o', 'w', 'n'}, sent.Callback());
    EXPECT_EQ(sent.Wait().bytes, 3u);
    EXPECT_EQ(Receive(remote), "own");
    SendFrom(0, group, port, "d");
    EXPECT_EQ(Receive(listener), "d");
    EXPECT_EQ(Read(any), "d");
}

// Bad input raises and leaves the object closed, or connected for Disconnect
// to clean up. Disconnect leaves the group. The mode stays multicast, as
// intended: after a unicast Connect the object still sends to the group, and
// its next Disconnect fails to leave a group the new socket never joined.
TEST_F(MulticastTest, BadInputDisconnectAndTheModeThatStays) {
    const std::string group = "232.10.4.4";
    const uint16_t port =
        ip::udp::socket(cimtest::PeerContext(), {ip::address_v4::any(), 0}).local_endpoint().port();
    CIM::TCCIMIpConnectionUdp connection(m_task.Get());
    EXPECT_THROW(connection.ConnectMulticast({CIM::IPv4, "239.10.5", port, false, {}}),
                 boost::system::system_error);
    EXPECT_FALSE(connection.IsConnected());
    EXPECT_THROW(
        connection.ConnectMulticast({CIM::IPv4, group, port, true, {kSources[0], "ten.0.0.1"}}),
        boost::system::system_error);
    EXPECT_TRUE(connection.IsConnected());
    connection.Disconnect();
    EXPECT_FALSE(connection.IsConnected());

    ASSERT_FALSE(Joined(group));
    ASSERT_TRUE(connection.ConnectMulticast({CIM::IPv4, group, port, true, {kSources[0]}}));
    EXPECT_TRUE(Joined(group));
    SendFrom(0, group, port, "good");
    EXPECT_EQ(Read(connection), "good");
    connection.Disconnect();
    EXPECT_FALSE(Joined(group));
    EXPECT_EQ(Read(connection), "error 103");

    ip::udp::socket remote = SenderSideListener(group, port);
    ASSERT_TRUE(connection.Connect({CIM::IPv4, kSources[0], port, CIM::UDP, {}, {}}, 0));
    Completion sent;
    connection.SendData({'s', 't', 'a', 'y'}, sent.Callback());
    EXPECT_FALSE(sent.Wait().error);
    EXPECT_EQ(Receive(remote), "stay");
    EXPECT_THROW(connection.Disconnect(), boost::system::system_error);
    EXPECT_TRUE(connection.IsConnected());
    // What is left closes it without the group.
    connection.CIM::TCCIMIpConnection<boost::asio::ip::udp>::Disconnect();
}

}  // namespace
