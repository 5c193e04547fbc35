// TCP and UDP connections against echoing peers on loopback.
#include <cimcore/CIMIpConnectionTcp.h>
#include <cimcore/CIMIpConnectionUdp.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <list>

namespace {

using cimtest::Clock;
using cimtest::Completion;
using cimtest::Loopback;
using cimtest::Scaled;
using cimtest::Since;
using std::chrono::milliseconds;
namespace ip = cimtest::ip;

// Sends all of `payload` (each SendData may take only part) from a second
// thread while this one keeps a read pending, so the echo never stalls both
// directions, and returns what came back. The first read is pending before
// the sends start: it puts the socket into the mode the loop needs.
std::vector<uint8_t> EchoRoundTrip(CIM::TCCIMIpConnectionTcp& connection,
                                   const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> received, buffer(65536);
    std::list<Completion> reads;
    connection.ReadData(buffer, boost::none, reads.emplace_back().Callback());
    const auto sender = std::async(std::launch::async, [&connection, &payload]() {
        for (size_t offset = 0, sent = 1; offset < payload.size() && sent > 0; offset += sent) {
            Completion done;
            connection.SendData({payload.begin() + long(offset), payload.end()}, done.Callback());
            sent = done.Wait().bytes;  // 0 on an error, which ends the loop
        }
    });
    for (;;) {
        const auto result = reads.back().Wait();
        received.insert(received.end(), buffer.begin(), buffer.begin() + long(result.bytes));
        if (result.error || received.size() >= payload.size()) {
            return received;
        }
        connection.ReadData(buffer, boost::none, reads.emplace_back().Callback());
    }
}

// After the echoes, data within a read's time-out ends the read and stops
// its alarm: the next read, with a longer time-out, is not cut short by the
// old one and ends with 125 when nothing comes.
TEST(TcpConnection, ConnectsEchoesUpToOneMebibyteAndTimesReadsOut) {
    cimtest::TestTask task;
    for (const unsigned char timeout : {0, 3}) {
        SCOPED_TRACE(int(timeout));
        cimtest::EchoPeer<ip::tcp> peer;
        CIM::TCCIMIpConnectionTcp connection(task.Get());
        Clock::time_point start = Clock::now();
        ASSERT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), timeout));
        EXPECT_LT(Since(start), Scaled(milliseconds(1000)));
        EXPECT_EQ(connection.GetSourcePort(), peer.ClientPort());
        for (const size_t size : {size_t(1), size_t(70001), size_t(1) << 20}) {
            const std::vector<uint8_t> payload = cimtest::Pattern(size);
            EXPECT_TRUE(EchoRoundTrip(connection, payload) == payload) << size;
        }

        {  // the second half of one segment is waiting when the next read starts
            cimtest::LogCapture log;
            std::vector<uint8_t> half(3);
            Completion echoed, first, second;
            connection.SendData({'a', 'b', 'c', 'd', 'e', 'f'}, echoed.Callback());
            connection.ReadData(half, boost::none, first.Callback());
            ASSERT_EQ(first.Wait().bytes, 3u);
            connection.ReadData(half, boost::none, second.Callback());
            ASSERT_EQ(second.Wait().bytes, 3u);
            EXPECT_EQ(log.Count(") > availableData [3] data.size [3] timeout [0]ms"), 1u);
        }
        std::vector<uint8_t> buffer(16);
        Completion sent, read, quiet;
        connection.SendData({'a', 'b', 'c'}, sent.Callback());
        connection.ReadData(buffer, uint16_t(100), read.Callback());
        ASSERT_EQ(read.Wait().bytes, 3u);
        start = Clock::now();
        connection.ReadData(buffer, uint16_t(300), quiet.Callback());
        EXPECT_EQ(quiet.Wait().error.value(), 125);
        EXPECT_EQ(quiet.Wait().bytes, 0u);
        EXPECT_GE(Since(start), milliseconds(300));
        EXPECT_LT(Since(start), milliseconds(300) + Scaled(milliseconds(1000)));
    }
}

// Round trips from a given source address and port. Port 0 is no
// destination, but UDP finds that out only from the peer: the
// association and the send succeed, and the port-unreachable answer reaches
// the next read as "connection refused".
TEST(UdpConnection, UnicastRoundTripsAndPortZeroRefusedAtTheNextRead) {
    cimtest::TestTask task;
    cimtest::EchoPeer<ip::udp> peer;
    const uint16_t freePort =
        ip::udp::socket(cimtest::PeerContext(), {ip::address_v4::loopback(), 0})
            .local_endpoint()
            .port();
    std::vector<uint8_t> buffer(65536);
    CIM::TCCIMIpConnectionUdp connection(task.Get()), portZero(task.Get());
    ASSERT_TRUE(connection.Connect(
        {CIM::IPv4, "127.0.0.1", peer.Port(), CIM::UDP, std::string("127.0.0.1"), freePort}, 1));
    EXPECT_EQ(connection.GetSourcePort(), freePort);
    for (const size_t size : {size_t(1), size_t(1400), size_t(60000)}) {
        const std::vector<uint8_t> payload = cimtest::Pattern(size);
        Completion read, sent;
        connection.ReadData(buffer, uint16_t(2000), read.Callback());
        connection.SendData(payload, sent.Callback());
        EXPECT_EQ(sent.Wait().bytes, size);
        ASSERT_EQ(read.Wait().bytes, size) << read.Wait().error.message();
        EXPECT_TRUE(std::vector<uint8_t>(buffer.begin(), buffer.begin() + long(size)) == payload);
    }

    ASSERT_TRUE(portZero.Connect(Loopback(0, CIM::UDP), 0));
    Completion sent, read;
    portZero.SendData({1, 2, 3}, sent.Callback());
    EXPECT_FALSE(sent.Wait().error);
    portZero.ReadData(buffer, uint16_t(2000), read.Callback());
    EXPECT_EQ(read.Wait().error, boost::asio::error::connection_refused);
    EXPECT_TRUE(portZero.IsConnected());
}

}  // namespace
