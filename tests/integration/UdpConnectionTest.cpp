#include <cimcore/CIMIpConnectionUdp.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {

using cimtest::Completion;
using cimtest::Loopback;

// Round trips from a given source address and port. Port 0 is no
// destination, but UDP finds that out only from the peer: the
// association and the send succeed, and the port-unreachable answer reaches
// the next read as "connection refused".
TEST(UdpConnection, UnicastRoundTripsAndPortZeroRefusedAtTheNextRead) {
    cimtest::TestTask task;
    cimtest::EchoPeer<cimtest::ip::udp> peer;
    cimtest::ip::udp::socket probe(cimtest::PeerContext(),
                                   {cimtest::ip::address_v4::loopback(), 0});
    const uint16_t freePort = probe.local_endpoint().port();
    probe.close();
    std::vector<uint8_t> buffer(65536);
    CIM::UniCastDescriptor descriptor = Loopback(peer.Port(), CIM::UDP);
    descriptor.sourceAddress = std::string("127.0.0.1");
    descriptor.sourcePort = freePort;
    CIM::TCCIMIpConnectionUdp connection(task.Get()), portZero(task.Get());
    ASSERT_TRUE(connection.Connect(descriptor, 1));
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
