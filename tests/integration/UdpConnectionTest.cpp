#include <cimcore/CIMIpConnectionUdp.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using cimtest::Completion;
using cimtest::Loopback;
using std::chrono::milliseconds;

// Without a source, with only a port (not bound: it takes both), with both.
TEST(UdpConnection, UnicastDatagramsRoundTripAndBindTheSourceWhenGiven) {
    cimtest::LogCapture log;
    cimtest::TestTask task;
    const uint16_t freePort =
        cimtest::ip::udp::socket(cimtest::PeerContext(), {cimtest::ip::address_v4::loopback(), 0})
            .local_endpoint()
            .port();
    for (const unsigned char timeout : {0, 1, 2}) {
        SCOPED_TRACE(int(timeout));
        log.Clear();
        cimtest::UdpEchoPeer peer;
        CIM::UniCastDescriptor descriptor = Loopback(peer.Port(), CIM::UDP);
        if (timeout > 0) {
            descriptor.sourcePort = freePort;
        }
        if (timeout > 1) {
            descriptor.sourceAddress = std::string("127.0.0.1");
        }
        CIM::TCCIMIpConnectionUdp connection(task.Get());
        ASSERT_TRUE(connection.Connect(descriptor, timeout));
        EXPECT_EQ(log.Count(") > source bind"), timeout > 1 ? 1u : 0u);
        const uint16_t sourcePort = connection.GetSourcePort();
        if (timeout > 1) {
            EXPECT_EQ(sourcePort, freePort);
        }

        std::vector<uint8_t> buffer(65536);
        for (const size_t size : {size_t(1), size_t(1400), size_t(60000)}) {
            const std::vector<uint8_t> payload = cimtest::Pattern(size, unsigned(size));
            Completion read;
            connection.ReadData(buffer, uint16_t(2000), read.Callback());
            Completion sent;
            connection.SendData(payload, sent.Callback());
            EXPECT_EQ(sent.Wait().bytes, size);
            EXPECT_NE(sent.Wait().thread, std::this_thread::get_id());
            const auto result = read.Wait();
            ASSERT_EQ(result.bytes, size) << result.error.message();
            EXPECT_TRUE(std::equal(payload.begin(), payload.end(), buffer.begin())) << size;
        }
        EXPECT_EQ(peer.LastSenderPort(), sourcePort);

        // Nothing more comes: the read ends with the time-out.
        Completion quiet;
        const cimtest::Clock::time_point start = cimtest::Clock::now();
        connection.ReadData(buffer, uint16_t(60), quiet.Callback());
        EXPECT_EQ(quiet.Wait().error.value(), 125);
        EXPECT_GE(cimtest::Since(start), milliseconds(60));
    }
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
    EXPECT_EQ(read.Wait().error, boost::asio::error::connection_refused);
    EXPECT_TRUE(connection.IsConnected());
}

}  // namespace
