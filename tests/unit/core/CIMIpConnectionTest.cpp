#include <cimcore/CIMIpConnectionTypes.h>

#include <cimcore/CIMIpConnectionTcp.h>
#include <cimcore/CIMIpConnectionUdp.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <thread>

namespace {

using cimtest::Completion;
using cimtest::LogCapture;
using cimtest::Loopback;

TEST(CIMIpConnectionTypes, TextForms) {
    LogCapture log;
    EXPECT_EQ(CIM::ToString(CIM::HOSTNAME), "HOSTNAME");
    EXPECT_EQ(CIM::ToString(CIM::IPv4), "IPv4");
    EXPECT_EQ(CIM::ToString(CIM::IPv6), "IPv6");
    EXPECT_EQ(CIM::ToString(CIM::DESTINATION_BY_ILLEGAL), "DESTINATION_BY_ILLEGAL");
    EXPECT_EQ(CIM::ToString(CIM::TCP), "TCP");
    EXPECT_EQ(CIM::ToString(CIM::UDP), "UDP");
    EXPECT_EQ(CIM::ToString(CIM::PROTOCOL_TYPE_ILLEGAL), "PROTOCOL_TYPE_ILLEGAL");
    EXPECT_TRUE(log.Lines().empty());

    CIM::UniCastDescriptor unicast{
        CIM::IPv4, "10.0.0.5", 8080, CIM::TCP, std::string("10.0.0.2"), uint16_t(4000)};
    EXPECT_EQ(CIM::ToString(unicast), "UniCast [IPv4]TCP 10.0.0.5 : 8080(10.0.0.2:4000)");
    unicast.sourceAddress.reset();
    EXPECT_EQ(CIM::ToString(unicast), "UniCast [IPv4]TCP 10.0.0.5 : 8080(:4000)");
    unicast.sourcePort.reset();
    EXPECT_EQ(CIM::ToString(unicast), "UniCast [IPv4]TCP 10.0.0.5 : 8080()");
    const CIM::UniCastDescriptor named{CIM::HOSTNAME, "cam.example",      65535,
                                       CIM::UDP,      std::string("::1"), {}};
    EXPECT_EQ(CIM::ToString(named), "UniCast [HOSTNAME]UDP cam.example : 65535(::1)");

    CIM::MultiCastDescriptor multicast{
        CIM::IPv4, "232.1.1.1", 5000, true, {"10.0.0.1", "10.0.0.2"}};
    EXPECT_EQ(CIM::ToString(multicast),
              "MultiCast UDP 232.1.1.1 : 5000 join [ 10.0.0.1 10.0.0.2 ]");
    multicast.join = false;
    multicast.sources.clear();
    multicast.destinationType = CIM::IPv6;  // not part of the text
    EXPECT_EQ(CIM::ToString(multicast), "MultiCast UDP 232.1.1.1 : 5000 except [ ]");

    // Values outside the tables: empty text, one log line each, also inside
    // a descriptor's text.
    EXPECT_EQ(CIM::ToString(static_cast<CIM::EDestinationType>(7)), "");
    EXPECT_EQ(CIM::ToString(static_cast<CIM::EProtocolType>(-3)), "");
    const CIM::UniCastDescriptor odd{static_cast<CIM::EDestinationType>(9), "h", 1,
                                     static_cast<CIM::EProtocolType>(0),    {},  {}};
    EXPECT_EQ(CIM::ToString(odd), "UniCast [] h : 1()");
    const auto messages = log.Messages();
    ASSERT_EQ(messages.size(), 4u);
    EXPECT_NE(messages[0].find("CIMIpConnection.cpp: ToString("), std::string::npos);
    EXPECT_NE(messages[0].find(") > Out of scope(7)"), std::string::npos);
    EXPECT_NE(messages[1].find(") > Out of scope(-3)"), std::string::npos);
    EXPECT_NE(messages[2].find(") > Out of scope(9)"), std::string::npos);
    EXPECT_NE(messages[3].find(") > Out of scope(0)"), std::string::npos);
}

// Every call on an unconnected object answers at once: callbacks with 103
// inside the call, on the caller's thread; no socket is touched.
template <typename Connection>
void CheckUnconnected(const boost::shared_ptr<CIM::TCCIMTask>& task) {
    LogCapture log;
    Connection connection(task);
    std::vector<uint8_t> data(8, 0xAA);
    for (const boost::optional<uint16_t> timeout :
         {boost::optional<uint16_t>(), boost::optional<uint16_t>(20)}) {
        Completion read;
        connection.ReadData(data, timeout, read.Callback());
        ASSERT_TRUE(read.Done());
        const auto result = read.Wait();
        EXPECT_EQ(result.error.value(), ECONNABORTED);
        EXPECT_EQ(result.error, boost::asio::error::connection_aborted);
        EXPECT_EQ(result.bytes, 0u);
        EXPECT_EQ(result.thread, std::this_thread::get_id());
    }
    Completion send;
    connection.SendData(data, send.Callback());
    ASSERT_TRUE(send.Done());
    EXPECT_EQ(send.Wait().error.value(), 103);
    EXPECT_EQ(send.Wait().bytes, 0u);
    EXPECT_EQ(data, std::vector<uint8_t>(8, 0xAA));

    EXPECT_FALSE(connection.IsConnected());
    EXPECT_EQ(connection.GetSourcePort(), 0);
    log.Clear();
    connection.Disconnect();
    const auto messages = log.Messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_NE(messages[0].find("CIMIpConnection.h: Disconnect("), std::string::npos);
    EXPECT_NE(messages[0].find("t_connected [false]"), std::string::npos);
    EXPECT_EQ(log.Count("disconnected"), 0u);
}

TEST(CIMIpConnection, UnconnectedObjectsCallBackWith103AtOnce) {
    cimtest::TestTask task;
    CheckUnconnected<CIM::TCCIMIpConnectionTcp>(task.Get());
    CheckUnconnected<CIM::TCCIMIpConnectionUdp>(task.Get());
}

// Each bad descriptor gives false (or a clear exception, for multicast) and
// leaves the object closed, so the next good Connect on it works.
TEST(CIMIpConnection, BadInputLeavesObjectReusable) {
    LogCapture log;
    cimtest::TestTask task;
    cimtest::RefusingPort refusing;

    {
        CIM::TCCIMIpConnectionTcp connection(task.Get());
        auto expectUsable = [&](const char* what) {
            cimtest::TcpPeer peer(cimtest::TcpPeer::Echo);
            EXPECT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), 0)) << what;
            EXPECT_EQ(connection.GetSourcePort(), peer.ClientPort()) << what;
            connection.Disconnect();
            EXPECT_FALSE(connection.IsConnected()) << what;
        };

        CIM::UniCastDescriptor illegal = Loopback(refusing.Port(), CIM::TCP);
        illegal.destinationType = CIM::DESTINATION_BY_ILLEGAL;
        log.Clear();
        EXPECT_FALSE(connection.Connect(illegal, 1));
        EXPECT_EQ(log.Count("Socket opened"), 0u);
        expectUsable("after an illegal destination type");

        for (const unsigned char timeout : {0, 1}) {
            CIM::UniCastDescriptor garbled = Loopback(1234, CIM::TCP);
            garbled.destination = "300.1.2.3";
            log.Clear();
            EXPECT_FALSE(connection.Connect(garbled, timeout));
            EXPECT_EQ(log.Count("Exception ["), 1u);
            expectUsable("after an address that does not parse");

            CIM::UniCastDescriptor badSource = Loopback(1234, CIM::TCP);
            badSource.sourceAddress = std::string("local");
            badSource.sourcePort = uint16_t(5000);
            log.Clear();
            EXPECT_FALSE(connection.Connect(badSource, timeout));
            EXPECT_EQ(log.Count("Option set"), 1u);
            EXPECT_EQ(log.Count("Exception ["), 1u);
            expectUsable("after a source address that does not parse");

            // Port 0 is refused by the kernel like any closed port.
            log.Clear();
            EXPECT_FALSE(connection.Connect(Loopback(0, CIM::TCP), timeout));
            EXPECT_FALSE(connection.IsConnected());
            expectUsable("after port 0");
        }

        // A host name fails at the socket options, which come before any
        // socket is opened; if the name does not resolve here, at "resolve".
        CIM::UniCastDescriptor named = Loopback(refusing.Port(), CIM::TCP);
        named.destinationType = CIM::HOSTNAME;
        named.destination = "localhost";
        for (const unsigned char timeout : {0, 2}) {
            log.Clear();
            EXPECT_FALSE(connection.Connect(named, timeout));
            if (log.Contains("Hostname resolved")) {
                EXPECT_EQ(log.Count("Exception [set_option: Bad file descriptor]"), 1u);
            } else {
                EXPECT_EQ(log.Count("Exception [resolve"), 1u);
            }
            EXPECT_EQ(log.Count("Start"), 0u);
        }
        expectUsable("after a host name");

        // A TCP connection receives no multicast.
        EXPECT_FALSE(connection.ConnectMulticast(
            CIM::MultiCastDescriptor{CIM::IPv4, "232.1.1.1", 5000, true, {}}));
        EXPECT_FALSE(connection.IsConnected());
        expectUsable("after ConnectMulticast");
    }

    // Multicast descriptors that are refused open no socket: a unicast
    // Connect afterwards would otherwise fail with "Already open".
    {
        cimtest::UdpEchoPeer peer;
        CIM::TCCIMIpConnectionUdp connection(task.Get());
        log.Clear();
        for (const CIM::EDestinationType type : {CIM::HOSTNAME, CIM::DESTINATION_BY_ILLEGAL}) {
            EXPECT_FALSE(connection.ConnectMulticast(
                CIM::MultiCastDescriptor{type, "232.1.1.1", 5000, false, {}}));
        }
        EXPECT_EQ(log.Count(") > Illegal destination type"), 2u);
        EXPECT_FALSE(connection.ConnectMulticast(
            CIM::MultiCastDescriptor{CIM::IPv6, "ff3e::1", 5000, true, {"::1"}}));
        EXPECT_EQ(log.Count(") > IP v6 is not supported. LSCv4 is obliged to support IGMPv3 "
                            "which supports multicast via IP v4 only."),
                  1u);
        EXPECT_FALSE(connection.IsConnected());
        EXPECT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::UDP), 0));
        EXPECT_EQ(log.Count("Exception ["), 0u);
        connection.Disconnect();
    }
}

}  // namespace
