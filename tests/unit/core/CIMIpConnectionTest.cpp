#include <cimcore/CIMIpConnectionTypes.h>

#include <cimcore/CIMIpConnectionTcp.h>
#include <cimcore/CIMIpConnectionUdp.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using cimtest::Completion;
using cimtest::Loopback;

TEST(CIMIpConnectionTypes, TextForms) {
    cimtest::LogCapture log;
    EXPECT_EQ(CIM::ToString(CIM::IPv6), "IPv6");
    EXPECT_EQ(CIM::ToString(CIM::DESTINATION_BY_ILLEGAL), "DESTINATION_BY_ILLEGAL");
    EXPECT_EQ(CIM::ToString(CIM::PROTOCOL_TYPE_ILLEGAL), "PROTOCOL_TYPE_ILLEGAL");
    CIM::UniCastDescriptor unicast{
        CIM::IPv4, "10.0.0.5", 8080, CIM::TCP, std::string("10.0.0.2"), uint16_t(4000)};
    EXPECT_EQ(CIM::ToString(unicast), "UniCast [IPv4]TCP 10.0.0.5 : 8080(10.0.0.2:4000)");
    unicast.sourceAddress.reset();
    EXPECT_EQ(CIM::ToString(unicast), "UniCast [IPv4]TCP 10.0.0.5 : 8080(:4000)");
    const CIM::UniCastDescriptor named{CIM::HOSTNAME, "cam.example",      65535,
                                       CIM::UDP,      std::string("::1"), {}};
    EXPECT_EQ(CIM::ToString(named), "UniCast [HOSTNAME]UDP cam.example : 65535(::1)");
    CIM::MultiCastDescriptor multicast{
        CIM::IPv4, "232.1.1.1", 5000, true, {"10.0.0.1", "10.0.0.2"}};
    EXPECT_EQ(CIM::ToString(multicast),
              "MultiCast UDP 232.1.1.1 : 5000 join [ 10.0.0.1 10.0.0.2 ]");
    multicast = {CIM::IPv6, "232.1.1.1", 5000, false, {}};  // the type is not part of the text
    EXPECT_EQ(CIM::ToString(multicast), "MultiCast UDP 232.1.1.1 : 5000 except [ ]");
    EXPECT_TRUE(log.Lines().empty());

    // Values outside the tables: empty text and one log line each.
    EXPECT_EQ(CIM::ToString(static_cast<CIM::EDestinationType>(7)), "");
    EXPECT_EQ(CIM::ToString(static_cast<CIM::EProtocolType>(-3)), "");
    const CIM::UniCastDescriptor odd{CIM::EDestinationType(9), "h", 1,
                                     CIM::EProtocolType(0),    {},  {}};
    EXPECT_EQ(CIM::ToString(odd), "UniCast [] h : 1()");
    EXPECT_EQ(log.Count("CIMIpConnection.cpp: ToString("), 4u);
    for (const char* value : {"(7)", "(-3)", "(9)", "(0)"}) {
        EXPECT_EQ(log.Count(std::string(") > Out of scope") + value), 1u);
    }
}

// Before Connect, reads (with or without a time-out) and sends call back with
// 103 inside the call, on the caller's thread.
TEST(CIMIpConnection, UnconnectedObjectsCallBackWith103AtOnce) {
    cimtest::TestTask task;
    CIM::TCCIMIpConnectionTcp tcp(task.Get());
    CIM::TCCIMIpConnectionUdp udp(task.Get());
    for (CIM::TICIMIpConnection* connection :
         std::initializer_list<CIM::TICIMIpConnection*>{&tcp, &udp}) {
        std::vector<uint8_t> data(8);
        Completion read, timedRead, send;
        connection->ReadData(data, boost::none, read.Callback());
        connection->ReadData(data, uint16_t(20), timedRead.Callback());
        connection->SendData(data, send.Callback());
        for (Completion* completion : {&read, &timedRead, &send}) {
            ASSERT_TRUE(completion->Done());
            EXPECT_EQ(completion->Wait().error.value(), 103);
            EXPECT_EQ(completion->Wait().bytes, 0u);
            EXPECT_EQ(completion->Wait().thread, std::this_thread::get_id());
        }
    }
}

// Each bad descriptor gives false (the log says why, where it can) and leaves
// the object closed, so the next good Connect on it works. A host name fails
// at the socket options, which come before any socket is opened.
TEST(CIMIpConnection, BadInputLeavesObjectReusable) {
    cimtest::LogCapture log;
    cimtest::TestTask task;
    CIM::TCCIMIpConnectionTcp tcp(task.Get());
    auto expectReusable = [&tcp]() {
        cimtest::TcpEchoPeer peer;
        EXPECT_TRUE(tcp.Connect(Loopback(peer.Port(), CIM::TCP), 0));
        tcp.Disconnect();
    };
    const std::tuple<CIM::EDestinationType, const char*, uint16_t, const char*, const char*>
        cases[] = {{CIM::DESTINATION_BY_ILLEGAL, "127.0.0.1", 1234, nullptr, nullptr},
                   {CIM::IPv4, "300.1.2.3", 1234, nullptr, "Exception ["},
                   {CIM::IPv4, "127.0.0.1", 1234, "local", "Exception ["},
                   {CIM::IPv4, "127.0.0.1", 0, nullptr, nullptr},  // refused like a closed port
                   {CIM::HOSTNAME, "localhost", 1234, nullptr,
                    "Exception [set_option: Bad file descriptor]"}};
    for (const auto& [type, destination, port, source, logged] : cases) {
        for (const unsigned char timeout : {0, 1}) {
            SCOPED_TRACE(std::string(destination) + " " + std::to_string(timeout));
            const auto sourceAddress =
                source ? boost::make_optional(std::string(source)) : boost::none;
            log.Clear();
            EXPECT_FALSE(tcp.Connect(
                {type, destination, port, CIM::TCP, sourceAddress, uint16_t(5000)}, timeout));
            // Without a resolver for the name here it fails one step earlier.
            const bool unresolved = type == CIM::HOSTNAME && !log.Contains("Hostname resolved");
            if (logged != nullptr) {
                EXPECT_TRUE(log.Contains(unresolved ? "Exception [resolve" : logged));
            }
            expectReusable();
        }
    }

    // A TCP connection receives no multicast; UDP refuses other than IPv4
    // groups, opening no socket (a unicast Connect would then raise "open").
    EXPECT_FALSE(tcp.ConnectMulticast({CIM::IPv4, "232.1.1.1", 5000, true, {}}));
    expectReusable();
    cimtest::UdpEchoPeer peer;
    CIM::TCCIMIpConnectionUdp udp(task.Get());
    log.Clear();
    EXPECT_FALSE(udp.ConnectMulticast({CIM::HOSTNAME, "232.1.1.1", 5000, false, {}}));
    EXPECT_EQ(log.Count(") > Illegal destination type"), 1u);
    EXPECT_FALSE(udp.ConnectMulticast({CIM::IPv6, "ff3e::1", 5000, true, {"::1"}}));
    EXPECT_EQ(log.Count(") > IP v6 is not supported. LSCv4 is obliged to support IGMPv3 which "
                        "supports multicast via IP v4 only."),
              1u);
    EXPECT_FALSE(udp.IsConnected());
    EXPECT_TRUE(udp.Connect(Loopback(peer.Port(), CIM::UDP), 0));
}

}  // namespace
