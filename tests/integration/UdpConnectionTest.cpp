#include <cimcore/CIMIpConnectionUdp.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using cimtest::Completion;
using cimtest::LogCapture;
using cimtest::Loopback;
using cimtest::Scaled;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

std::vector<uint8_t> Pattern(size_t size, unsigned seed) {
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i) {
        data[i] = uint8_t(i * 31 + seed);
    }
    return data;
}

TEST(UdpConnection, UnicastDatagramsRoundTripWithAndWithoutTimeout) {
    cimtest::TestTask task;
    for (const unsigned char timeout : {0, 2}) {
        SCOPED_TRACE(int(timeout));
        cimtest::UdpEchoPeer peer;
        CIM::TCCIMIpConnectionUdp connection(task.Get());
        ASSERT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::UDP), timeout));
        EXPECT_TRUE(connection.IsConnected());
        const uint16_t sourcePort = connection.GetSourcePort();
        EXPECT_NE(sourcePort, 0);

        unsigned seed = 3;
        std::vector<uint8_t> buffer(65536);
        for (const size_t size : {size_t(1), size_t(1400), size_t(60000)}) {
            SCOPED_TRACE(size);
            const std::vector<uint8_t> payload = Pattern(size, seed++);
            Completion read;
            connection.ReadData(buffer, uint16_t(2000), read.Callback());
            Completion sent;
            connection.SendData(payload, sent.Callback());
            const auto sendResult = sent.Wait();
            EXPECT_FALSE(sendResult.error);
            EXPECT_EQ(sendResult.bytes, size);
            EXPECT_NE(sendResult.thread, std::this_thread::get_id());
            const auto readResult = read.Wait();
            ASSERT_FALSE(readResult.error) << readResult.error.message();
            ASSERT_EQ(readResult.bytes, size);
            EXPECT_TRUE(std::equal(payload.begin(), payload.end(), buffer.begin()));
        }
        EXPECT_EQ(peer.LastSenderPort(), sourcePort);

        // Nothing more comes: the read ends with the time-out.
        Completion quiet;
        const Clock::time_point start = Clock::now();
        connection.ReadData(buffer, uint16_t(60), quiet.Callback());
        EXPECT_EQ(quiet.Wait().error.value(), 125);
        EXPECT_GE(std::chrono::duration_cast<milliseconds>(Clock::now() - start), milliseconds(60));

        connection.Disconnect();
        EXPECT_FALSE(connection.IsConnected());
    }
}

// The local end is bound only when both source fields are given.
TEST(UdpConnection, SourceAddressAndPortBindTheLocalEnd) {
    LogCapture log;
    cimtest::TestTask task;
    cimtest::UdpEchoPeer peer;
    const int reserve = cimtest::BoundSocket(SOCK_DGRAM, "127.0.0.1", 0);
    const uint16_t freePort = cimtest::LocalPort(reserve);
    ::close(reserve);

    CIM::TCCIMIpConnectionUdp connection(task.Get());
    CIM::UniCastDescriptor onlyPort = Loopback(peer.Port(), CIM::UDP);
    onlyPort.sourcePort = freePort;
    ASSERT_TRUE(connection.Connect(onlyPort, 0));
    EXPECT_EQ(log.Count("source bind"), 0u);
    connection.Disconnect();

    CIM::UniCastDescriptor both = onlyPort;
    both.sourceAddress = std::string("127.0.0.1");
    ASSERT_TRUE(connection.Connect(both, 1));
    EXPECT_EQ(log.Count(") > source bind"), 1u);
    EXPECT_EQ(connection.GetSourcePort(), freePort);
    EXPECT_EQ(log.Count(") > Source port [" + std::to_string(freePort) + "]"), 1u);

    std::vector<uint8_t> buffer(16);
    Completion read;
    connection.ReadData(buffer, uint16_t(2000), read.Callback());
    Completion sent;
    connection.SendData({'h', 'i'}, sent.Callback());
    EXPECT_EQ(sent.Wait().bytes, 2u);
    EXPECT_EQ(read.Wait().bytes, 2u);
    EXPECT_EQ(peer.LastSenderPort(), freePort);
    connection.Disconnect();
}

// Port 0 is no destination, but UDP finds that out only from the peer: the
// association and the send succeed, and the port-unreachable answer reaches
// the next read as "connection refused".
TEST(UdpConnection, PortZeroIsRefusedAtTheNextRead) {
    cimtest::TestTask task;
    CIM::TCCIMIpConnectionUdp connection(task.Get());
    ASSERT_TRUE(connection.Connect(Loopback(0, CIM::UDP), 0));
    Completion sent;
    connection.SendData({1, 2, 3}, sent.Callback());
    EXPECT_FALSE(sent.Wait().error);
    std::vector<uint8_t> buffer(16);
    Completion read;
    connection.ReadData(buffer, uint16_t(2000), read.Callback());
    const auto result = read.Wait();
    EXPECT_EQ(result.error, boost::asio::error::connection_refused) << result.error.message();
    EXPECT_EQ(result.bytes, 0u);
    EXPECT_TRUE(connection.IsConnected());
    connection.Disconnect();
}

}  // namespace
