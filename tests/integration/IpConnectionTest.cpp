// TCP and UDP connections against echoing peers on loopback, and IPv4
// multicast with source filters, for real: a receiver namespace and a sender
// namespace of the test's own, joined by a veth pair. The sender namespace
// holds two source addresses, one socket bound to each.
#include <cimcore/CIMIpConnectionTcp.h>
#include <cimcore/CIMIpConnectionUdp.h>

#include "NetTestPeers.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace {

using namespace cimtest;
using namespace std::chrono_literals;

// Sends all of `payload` (each SendData may take only part) from a second
// thread while this one keeps a read pending, so the echo never stalls both
// directions, and returns what came back. The first read is pending before
// the sends start: it puts the socket into the mode the loop needs.
std::vector<uint8_t> EchoRoundTrip(CIM::TCCIMIpConnectionTcp& connection,
                                   const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> received, buffer(65536);
    Completion first;
    connection.ReadData(buffer, boost::none, first.Callback());
    const auto sender = std::async(std::launch::async, [&connection, &payload]() {
        // 0 bytes on an error, which ends the loop
        for (size_t offset = 0, sent = 1; offset < payload.size() && sent > 0; offset += sent) {
            sent = Send(connection, {payload.begin() + long(offset), payload.end()}).bytes;
        }
    });
    for (auto result = first.Wait();; result = Read(connection, buffer, boost::none)) {
        received.insert(received.end(), buffer.begin(), buffer.begin() + long(result.bytes));
        if (result.error || received.size() >= payload.size()) {
            return received;
        }
    }
}

// After the echoes, data within a read's time-out ends the read and stops
// its alarm: the next read, with a longer time-out, is not cut short by the
// old one and ends with 125 when nothing comes.
TEST(TcpConnection, ConnectsEchoesUpToOneMebibyteAndTimesReadsOut) {
    TestTask task;
    EchoPeer<ip::tcp> peer;
    CIM::TCCIMIpConnectionTcp connection(task.Get());
    ASSERT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), 3));
    for (const size_t size : {size_t(1), size_t(70001), size_t(1) << 20}) {
        const std::vector<uint8_t> payload = Pattern(size);
        EXPECT_TRUE(EchoRoundTrip(connection, payload) == payload) << size;
    }

    // The second half of one segment is waiting when the next read starts.
    LogCapture log;
    std::vector<uint8_t> half(3), buffer(16);
    Send(connection, {'a', 'b', 'c', 'd', 'e', 'f'});
    ASSERT_EQ(Read(connection, half, boost::none).bytes, 3u);
    ASSERT_EQ(Read(connection, half, boost::none).bytes, 3u);
    EXPECT_EQ(log.Count(") > availableData [3] data.size [3] timeout [0]ms"), 1u);

    Send(connection, {'a', 'b', 'c'});
    ASSERT_EQ(Read(connection, buffer, uint16_t(100)).bytes, 3u);
    const Clock::time_point start = Clock::now();
    const CompletionResult quiet = Read(connection, buffer, uint16_t(300));
    EXPECT_EQ(quiet.error.value(), 125);
    EXPECT_EQ(quiet.bytes, 0u);
    EXPECT_GE(Since(start), 300ms);
    EXPECT_LT(Since(start), 300ms + Scaled(1000ms));
}

// Round trips from a given source address and port.
TEST(UdpConnection, UnicastRoundTripsFromAGivenSource) {
    TestTask task;
    EchoPeer<ip::udp> peer;
    const uint16_t freePort =
        ip::udp::socket(PeerContext(), {ip::address_v4::loopback(), 0}).local_endpoint().port();
    std::vector<uint8_t> buffer(65536);
    CIM::TCCIMIpConnectionUdp connection(task.Get());
    ASSERT_TRUE(connection.Connect(
        {CIM::IPv4, "127.0.0.1", peer.Port(), CIM::UDP, std::string("127.0.0.1"), freePort}, 1));
    EXPECT_EQ(connection.GetSourcePort(), freePort);
    const std::vector<uint8_t> payload = Pattern(60000);
    EXPECT_EQ(Send(connection, payload).bytes, payload.size());
    ASSERT_EQ(Read(connection, buffer, uint16_t(2000)).bytes, payload.size());
    EXPECT_TRUE(std::vector<uint8_t>(buffer.begin(), buffer.begin() + 60000) == payload);
}

const char* const kSources[] = {"10.213.0.2", "10.213.0.3"};
const std::string kRx = "cim-rx-" + std::to_string(::getpid());
const std::string kTx = "cim-tx-" + std::to_string(::getpid());

// Moves the calling thread into one of our namespaces, or back home for "".
void Enter(const std::string& name) {
    static const int home = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int target =
        name.empty() ? ::dup(home) : ::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (target < 0 || ::setns(target, CLONE_NEWNET) != 0 || ::close(target) != 0) {
        throw std::runtime_error("cannot enter network namespace " + name);
    }
}

// The test bodies run in the receiver namespace.
class MulticastTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string script =
            "set -e; rx=" + kRx + " tx=" + kTx +
            "; ip netns add $rx; ip netns add $tx"
            "; ip link add v$rx netns $rx type veth peer name v$tx netns $tx"
            "; ip -n $rx addr add 10.213.0.1/24 dev v$rx; for a in 2 3; do"
            " ip -n $tx addr add 10.213.0.$a/24 dev v$tx; done; for n in $rx $tx; do"
            " ip -n $n link set v$n up; ip -n $n route add 224.0.0.0/4 dev v$n; done";
        if (std::system(script.c_str()) != 0) {
            GTEST_SKIP() << "cannot set up network namespaces (the tool said why above)";
        }
        Enter(kTx);
        for (const char* source : kSources) {
            m_senders.emplace_back(PeerContext(), ip::udp::endpoint(ip::make_address(source), 0));
        }
        Enter(kRx);
    }
    void TearDown() override {
        if (!IsSkipped()) {
            Enter("");
        }
        // Removing a namespace removes its end of the veth pair, and so both.
        std::system(
            ("ip netns del " + kRx + " 2>/dev/null; ip netns del " + kTx + " 2>/dev/null").c_str());
    }

    // The next datagram through the connection; one that does not come in
    // time gives "".
    static std::string Read(CIM::TCCIMIpConnectionUdp& connection) {
        std::vector<uint8_t> buffer(1500);
        const size_t got = cimtest::Read(connection, buffer, 2000).bytes;
        return std::string(buffer.begin(), buffer.begin() + long(got));
    }
    // Whether this namespace has joined the group (the table shows it in hex).
    static bool Joined(const std::string& group) {
        char hex[9];
        std::snprintf(hex, sizeof hex, "%08X", htonl(ip::make_address_v4(group).to_uint()));
        return ReadFile("/proc/thread-self/net/igmp").find(hex) != std::string::npos;
    }

    TestTask m_task;
    std::vector<ip::udp::socket> m_senders;
};

// A datagram that a filter lets through is queued on every connection's
// socket in the same delivery: once the unfiltered connection has it, the
// others' next datagram tells whether it passed.
TEST_F(MulticastTest, SourceFiltersOwnDatagramsAndDisconnect) {
    const std::string group = "239.10.1.1";
    const uint16_t port =
        ip::udp::socket(PeerContext(), {ip::address_v4::any(), 0}).local_endpoint().port();
    const ip::udp::endpoint to(ip::make_address(group), port);
    CIM::TCCIMIpConnectionUdp joined(m_task.Get()), except(m_task.Get()), any(m_task.Get());
    ASSERT_TRUE(joined.ConnectMulticast({CIM::IPv4, group, port, true, {kSources[0]}}));
    ASSERT_TRUE(except.ConnectMulticast({CIM::IPv4, group, port, false, {kSources[0]}}));
    ASSERT_TRUE(any.ConnectMulticast({CIM::IPv4, group, port, true, {}}));  // empty join list

    // Every datagram a filter blocks is followed by one it lets through.
    for (const auto& [source, text] : {std::pair(1, "a"), std::pair(0, "b"), std::pair(1, "c")}) {
        m_senders[source].send_to(boost::asio::buffer(std::string(text)), to);
        EXPECT_EQ(Read(any), text);
    }
    EXPECT_EQ(Read(joined), "b");
    EXPECT_EQ(Read(except), "a");
    EXPECT_EQ(Read(except), "c");

    // Its own datagram reaches the other namespace but not this one, where
    // it would come before the next one from outside.
    Enter(kTx);
    CIM::TCCIMIpConnectionUdp remote(m_task.Get());
    ASSERT_TRUE(remote.ConnectMulticast({CIM::IPv4, group, port, true, {}}));
    Enter(kRx);
    Send(any, {'o', 'w', 'n'});
    EXPECT_EQ(Read(remote), "own");
    m_senders[0].send_to(boost::asio::buffer(std::string("d")), to);
    EXPECT_EQ(Read(any), "d");

    // Disconnect leaves the group, however it was joined.
    EXPECT_TRUE(Joined(group));
    for (CIM::TCCIMIpConnectionUdp* connection : {&joined, &except, &any}) {
        connection->Disconnect();
    }
    EXPECT_FALSE(Joined(group));
}

}  // namespace
