// IPv4 multicast with source filters, for real: a receiver namespace and a
// sender namespace of the test's own, joined by a veth pair. The sender
// namespace holds three source addresses, one socket bound to each.
#include <cimcore/CIMIpConnectionUdp.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using cimtest::Completion;
using cimtest::LogCapture;
using cimtest::Scaled;
using std::chrono::milliseconds;

const char* const kReceiverAddress = "10.213.0.1";
const char* const kSources[] = {"10.213.0.2", "10.213.0.3", "10.213.0.4"};

bool RunQuietly(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

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
    InNamespace(const InNamespace&) = delete;
    InNamespace& operator=(const InNamespace&) = delete;

private:
    int m_home;
};

class MulticastTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        const std::string suffix = std::to_string(::getpid());
        s_receiver = "cim-rx-" + suffix;
        s_sender = "cim-tx-" + suffix;
        if (::geteuid() != 0) {
            s_skipReason = "network namespaces need root; this run is not root";
            return;
        }
        if (!RunQuietly("ip -V")) {
            s_skipReason = "the ip tool (iproute2) is not installed";
            return;
        }
        const std::string rx = "ip -n " + s_receiver + " ";
        const std::string tx = "ip -n " + s_sender + " ";
        const std::vector<std::string> steps = {
            "ip netns add " + s_receiver,
            "ip netns add " + s_sender,
            "ip link add cimrx" + suffix + " netns " + s_receiver + " type veth peer name cimtx" +
                suffix + " netns " + s_sender,
            rx + "link set lo up",
            rx + "addr add " + kReceiverAddress + "/24 dev cimrx" + suffix,
            rx + "link set cimrx" + suffix + " up",
            rx + "route add 224.0.0.0/4 dev cimrx" + suffix,
            tx + "link set lo up",
            tx + "addr add " + kSources[0] + "/24 dev cimtx" + suffix,
            tx + "addr add " + kSources[1] + "/24 dev cimtx" + suffix,
            tx + "addr add " + kSources[2] + "/24 dev cimtx" + suffix,
            tx + "link set cimtx" + suffix + " up",
            tx + "route add 224.0.0.0/4 dev cimtx" + suffix,
        };
        for (const std::string& step : steps) {
            if (!RunQuietly(step)) {
                s_skipReason = "cannot set up the namespaces (" + step + " failed)";
                TearDownTestSuite();
                return;
            }
        }
    }
    static void TearDownTestSuite() {
        // Removing a namespace removes its end of the veth pair, and so both.
        RunQuietly("ip netns del " + s_receiver);
        RunQuietly("ip netns del " + s_sender);
    }
    void SetUp() override {
        if (!s_skipReason.empty()) {
            GTEST_SKIP() << s_skipReason;
        }
        InNamespace tx(s_sender);
        for (const char* source : kSources) {
            m_senders.push_back(cimtest::BoundSocket(SOCK_DGRAM, source, 0));
        }
    }
    void TearDown() override {
        for (const int fd : m_senders) {
            ::close(fd);
        }
    }

    // A plain socket that receives every source of the group on `port` (0:
    // a free one) in the given namespace.
    static int GroupListener(const std::string& space, const std::string& group, uint16_t port) {
        InNamespace inside(space);
        const int fd = cimtest::BoundSocket(SOCK_DGRAM, "0.0.0.0", port, true);
        ip_mreq request{};
        request.imr_multiaddr = cimtest::Ipv4Address(group, 0).sin_addr;
        request.imr_interface.s_addr = htonl(INADDR_ANY);
        if (::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) != 0) {
            cimtest::ThrowErrno("IP_ADD_MEMBERSHIP");
        }
        return fd;
    }

    void SendFrom(int sourceIndex, const std::string& group, uint16_t port,
                  const std::string& text) {
        const sockaddr_in to = cimtest::Ipv4Address(group, port);
        ASSERT_EQ(::sendto(m_senders[size_t(sourceIndex)], text.data(), text.size(), 0,
                           reinterpret_cast<const sockaddr*>(&to), sizeof to),
                  ssize_t(text.size()));
    }

    // The next datagram on a plain socket, or "" when none comes in time.
    static std::string Receive(int fd) {
        if (!cimtest::WaitReadable(fd, int(Scaled(milliseconds(2000)).count()))) {
            return std::string();
        }
        char buffer[1500];
        const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
        return got > 0 ? std::string(buffer, size_t(got)) : std::string();
    }

    // The next datagram through the connection, or the error's number.
    static std::string Read(CIM::TCCIMIpConnectionUdp& connection, uint16_t timeoutMs = 2000) {
        std::vector<uint8_t> buffer(1500);
        Completion read;
        connection.ReadData(buffer, timeoutMs, read.Callback());
        const auto result = read.Wait();
        if (result.error) {
            return "error " + std::to_string(result.error.value());
        }
        return std::string(buffer.begin(), buffer.begin() + long(result.bytes));
    }

    static std::string s_receiver;
    static std::string s_sender;
    static std::string s_skipReason;
    std::vector<int> m_senders;
    cimtest::TestTask m_task;
};

std::string MulticastTest::s_receiver;
std::string MulticastTest::s_sender;
std::string MulticastTest::s_skipReason;

// A datagram that a filter lets through would be queued on the connection's
// socket in the same delivery that reaches the unfiltered listener. So once
// the listener has it, the connection's next datagram tells whether it
// passed.
TEST_F(MulticastTest, JoinListReceivesOnlyTheListedSources) {
    LogCapture log;
    const std::string group = "232.10.1.1";
    const int listener = GroupListener(s_receiver, group, 0);
    const uint16_t port = cimtest::LocalPort(listener);
    CIM::TCCIMIpConnectionUdp connection(m_task.Get());
    {
        InNamespace rx(s_receiver);
        ASSERT_TRUE(connection.ConnectMulticast(
            CIM::MultiCastDescriptor{CIM::IPv4, group, port, true, {kSources[0], kSources[1]}}));
    }
    EXPECT_TRUE(connection.IsConnected());
    EXPECT_EQ(log.Count(") > set_option(enable_loopback(false)) = Success"), 1u);

    SendFrom(2, group, port, "from .4");
    EXPECT_EQ(Receive(listener), "from .4");
    SendFrom(0, group, port, "from .2");
    EXPECT_EQ(Receive(listener), "from .2");
    EXPECT_EQ(Read(connection), "from .2");
    SendFrom(2, group, port, "again from .4");
    EXPECT_EQ(Receive(listener), "again from .4");
    SendFrom(1, group, port, "from .3");
    EXPECT_EQ(Receive(listener), "from .3");
    EXPECT_EQ(Read(connection), "from .3");

    // Already open: a second ConnectMulticast raises.
    try {
        InNamespace rx(s_receiver);
        connection.ConnectMulticast(CIM::MultiCastDescriptor{CIM::IPv4, group, port, true, {}});
        ADD_FAILURE() << "a second ConnectMulticast did not raise";
    } catch (const boost::system::system_error& error) {
        EXPECT_NE(std::string(error.what()).find("open"), std::string::npos) << error.what();
    }
    EXPECT_TRUE(connection.IsConnected());
    SendFrom(0, group, port, "still here");
    EXPECT_EQ(Read(connection), "still here");

    connection.Disconnect();
    ::close(listener);
}

// An except list blocks the listed sources only; a join flag with an empty
// list is an any-source reception as well.
TEST_F(MulticastTest, ExceptListBlocksTheListedSources) {
    const std::string group = "239.10.2.2";
    const int listener = GroupListener(s_receiver, group, 0);
    const uint16_t port = cimtest::LocalPort(listener);
    CIM::TCCIMIpConnectionUdp except(m_task.Get());
    CIM::TCCIMIpConnectionUdp joinAll(m_task.Get());
    {
        InNamespace rx(s_receiver);
        ASSERT_TRUE(except.ConnectMulticast(
            CIM::MultiCastDescriptor{CIM::IPv4, group, port, false, {kSources[1]}}));
        ASSERT_TRUE(
            joinAll.ConnectMulticast(CIM::MultiCastDescriptor{CIM::IPv4, group, port, true, {}}));
    }
    SendFrom(1, group, port, "from .3");
    EXPECT_EQ(Receive(listener), "from .3");
    EXPECT_EQ(Read(joinAll), "from .3");
    SendFrom(0, group, port, "from .2");
    EXPECT_EQ(Receive(listener), "from .2");
    EXPECT_EQ(Read(except), "from .2");
    EXPECT_EQ(Read(joinAll), "from .2");
    SendFrom(2, group, port, "from .4");
    EXPECT_EQ(Read(except), "from .4");
    EXPECT_EQ(Read(joinAll), "from .4");
    except.Disconnect();
    joinAll.Disconnect();
    ::close(listener);
}

// The connection sends to the group, but its own datagrams do not come back
// to it (nor to anyone else on its host).
TEST_F(MulticastTest, OwnDatagramsAreNotLoopedBack) {
    const std::string group = "239.10.3.3";
    const int localListener = GroupListener(s_receiver, group, 0);
    const uint16_t port = cimtest::LocalPort(localListener);
    const int remoteListener = GroupListener(s_sender, group, port);
    CIM::TCCIMIpConnectionUdp connection(m_task.Get());
    {
        InNamespace rx(s_receiver);
        ASSERT_TRUE(connection.ConnectMulticast(
            CIM::MultiCastDescriptor{CIM::IPv4, group, port, false, {}}));
    }
    Completion sent;
    connection.SendData({'o', 'w', 'n'}, sent.Callback());
    EXPECT_FALSE(sent.Wait().error);
    EXPECT_EQ(sent.Wait().bytes, 3u);
    EXPECT_EQ(Receive(remoteListener), "own");

    SendFrom(0, group, port, "after");
    EXPECT_EQ(Receive(localListener), "after");
    EXPECT_EQ(Read(connection), "after");
    connection.Disconnect();
    ::close(remoteListener);
    ::close(localListener);
}

std::string IgmpTable(const std::string& space) {
    InNamespace inside(space);
    std::ifstream in("/proc/thread-self/net/igmp");
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Disconnect leaves the group. The mode stays multicast, as intended: after
// a later unicast Connect the object still sends to the group, and its next
// Disconnect fails to leave a group that the new socket never joined.
TEST_F(MulticastTest, DisconnectLeavesTheGroupAndTheModeStays) {
    const std::string group = "232.10.4.4";
    char groupHex[9];
    std::snprintf(groupHex, sizeof groupHex, "%08X",
                  unsigned(cimtest::Ipv4Address(group, 0).sin_addr.s_addr));
    int reserve;
    {
        InNamespace rx(s_receiver);
        reserve = cimtest::BoundSocket(SOCK_DGRAM, "0.0.0.0", 0, true);
    }
    const uint16_t port = cimtest::LocalPort(reserve);
    ASSERT_EQ(IgmpTable(s_receiver).find(groupHex), std::string::npos);

    CIM::TCCIMIpConnectionUdp connection(m_task.Get());
    {
        InNamespace rx(s_receiver);
        ASSERT_TRUE(connection.ConnectMulticast(
            CIM::MultiCastDescriptor{CIM::IPv4, group, port, true, {kSources[0]}}));
    }
    EXPECT_NE(IgmpTable(s_receiver).find(groupHex), std::string::npos);
    connection.Disconnect();
    EXPECT_FALSE(connection.IsConnected());
    EXPECT_EQ(IgmpTable(s_receiver).find(groupHex), std::string::npos);
    EXPECT_EQ(Read(connection), "error 103");

    const int remoteListener = GroupListener(s_sender, group, port);
    {
        InNamespace rx(s_receiver);
        ASSERT_TRUE(connection.Connect(
            CIM::UniCastDescriptor{CIM::IPv4, kSources[0], port, CIM::UDP, {}, {}}, 0));
    }
    Completion sent;
    connection.SendData({'s', 't', 'a', 'y'}, sent.Callback());
    EXPECT_FALSE(sent.Wait().error);
    EXPECT_EQ(Receive(remoteListener), "stay");
    EXPECT_THROW(connection.Disconnect(), boost::system::system_error);
    EXPECT_TRUE(connection.IsConnected());
    // What is left to close it without the group.
    connection.CIM::TCCIMIpConnection<boost::asio::ip::udp>::Disconnect();
    EXPECT_FALSE(connection.IsConnected());
    ::close(remoteListener);
    ::close(reserve);
}

// Sources that are not IPv4 literals raise; the connection is then marked
// connected and Disconnect cleans it up.
TEST_F(MulticastTest, BadSourcesRaiseAndDisconnectCleansUp) {
    const std::string group = "239.10.5.5";
    CIM::TCCIMIpConnectionUdp connection(m_task.Get());
    int reserve;
    {
        InNamespace rx(s_receiver);
        reserve = cimtest::BoundSocket(SOCK_DGRAM, "0.0.0.0", 0, true);
    }
    const uint16_t port = cimtest::LocalPort(reserve);
    {
        InNamespace rx(s_receiver);
        EXPECT_THROW(connection.ConnectMulticast(CIM::MultiCastDescriptor{
                         CIM::IPv4, group, port, false, {kSources[0], "ten.0.0.1"}}),
                     boost::system::system_error);
        EXPECT_TRUE(connection.IsConnected());
        connection.Disconnect();
        EXPECT_FALSE(connection.IsConnected());

        // A group that does not parse fails before anything is joined and
        // leaves the socket closed for the next attempt.
        EXPECT_THROW(connection.ConnectMulticast(
                         CIM::MultiCastDescriptor{CIM::IPv4, "239.10.5", port, false, {}}),
                     boost::system::system_error);
        EXPECT_FALSE(connection.IsConnected());
        ASSERT_TRUE(connection.ConnectMulticast(
            CIM::MultiCastDescriptor{CIM::IPv4, group, port, true, {kSources[2]}}));
    }
    SendFrom(2, group, port, "good");
    EXPECT_EQ(Read(connection), "good");
    connection.Disconnect();
    ::close(reserve);
}

}  // namespace
