#include <cimcore/CIMIpConnectionTypes.h>

#include <cimcore/CIMIpConnectionTcp.h>
#include <cimcore/CIMIpConnectionUdp.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {

using cimtest::Completion;
using cimtest::Loopback;

TEST(CIMIpConnectionTypes, TextForms) {
    cimtest::LogCapture log;
    EXPECT_EQ(CIM::ToString(CIM::UniCastDescriptor{CIM::IPv4, "10.0.0.5", 8080, CIM::TCP,
                                                   std::string("10.0.0.2"), uint16_t(4000)}),
              "UniCast [IPv4]TCP 10.0.0.5 : 8080(10.0.0.2:4000)");
    EXPECT_EQ(CIM::ToString(CIM::MultiCastDescriptor{
                  CIM::IPv4, "232.1.1.1", 5000, true, {"10.0.0.1", "10.0.0.2"}}),
              "MultiCast UDP 232.1.1.1 : 5000 join [ 10.0.0.1 10.0.0.2 ]");
    // Values outside the tables: empty text, and the log says which.
    EXPECT_EQ(CIM::ToString(CIM::UniCastDescriptor{
                  CIM::EDestinationType(9), "h", 1, CIM::EProtocolType(0), {}, uint16_t(2)}),
              "UniCast [] h : 1(:2)");
    EXPECT_EQ(log.Count(") > Out of scope(9)"), 1u);
    EXPECT_EQ(log.Count(") > Out of scope(0)"), 1u);
}

// Before Connect, reads and sends call back with 103 before they return.
// Each bad descriptor gives false and leaves the object closed, so the next
// good Connect on it works, synchronous or not. A host name fails too: at
// the socket options, set before any socket is opened (or earlier, where
// nothing resolves it).
TEST(CIMIpConnection, UnconnectedCallsAndBadInputLeaveTheObjectReusable) {
    cimtest::LogCapture log;
    cimtest::TestTask task;
    CIM::TCCIMIpConnectionTcp tcp(task.Get());
    std::vector<uint8_t> data(8);
    Completion read, send;
    tcp.ReadData(data, uint16_t(20), read.Callback());
    tcp.SendData(data, send.Callback());
    for (Completion* completion : {&read, &send}) {
        ASSERT_EQ(completion->calls, 1);
        EXPECT_EQ(completion->Wait().error.value(), 103);
    }

    const std::tuple<CIM::EDestinationType, const char*, uint16_t> cases[] = {
        {CIM::DESTINATION_BY_ILLEGAL, "127.0.0.1", 1234},
        {CIM::IPv4, "300.1.2.3", 1234},
        {CIM::IPv4, "127.0.0.1", 0},  // refused like a closed port
        {CIM::HOSTNAME, "localhost", 1234}};
    for (const auto& [type, destination, port] : cases) {
        for (const unsigned char timeout : {0, 1}) {
            SCOPED_TRACE(std::string(destination) + " " + std::to_string(timeout));
            EXPECT_FALSE(tcp.Connect({type, destination, port, CIM::TCP, {}, {}}, timeout));
            cimtest::EchoPeer<cimtest::ip::tcp> peer;
            EXPECT_TRUE(tcp.Connect(Loopback(peer.Port(), CIM::TCP), 0));
            tcp.Disconnect();
        }
    }

    // Multicast only over IPv4, and a refusal opens no socket (a unicast
    // Connect would then raise "open").
    CIM::TCCIMIpConnectionUdp udp(task.Get());
    EXPECT_FALSE(udp.ConnectMulticast({CIM::HOSTNAME, "232.1.1.1", 5000, false, {}}));
    EXPECT_TRUE(log.Contains(") > Illegal destination type"));
    EXPECT_FALSE(udp.ConnectMulticast({CIM::IPv6, "ff3e::1", 5000, true, {"::1"}}));
    EXPECT_TRUE(
        log.Contains(") > IP v6 is not supported. LSCv4 is obliged to support IGMPv3 which "
                     "supports multicast via IP v4 only."));
    EXPECT_TRUE(udp.Connect(Loopback(9, CIM::UDP), 0));
}

}  // namespace
