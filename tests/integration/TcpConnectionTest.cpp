#include <cimcore/CIMIpConnectionTcp.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/post.hpp>

#include <list>

namespace {

using cimtest::Clock;
using cimtest::Completion;
using cimtest::Loopback;
using cimtest::Scaled;
using cimtest::Since;
using std::chrono::milliseconds;

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
        cimtest::EchoPeer<cimtest::ip::tcp> peer;
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

// A refused connect ends with its handler, long before the time-out; a peer
// that never answers costs the time-out; with the loop held up the cancelled
// handler cannot run, so Connect gives up 3 s later and the handler, when it
// finally runs, finds the promise gone. Each time the socket is closed, so
// the same object connects again.
TEST(TcpConnection, FailedConnectsReturnFalseAndCloseTheSocket) {
    cimtest::LogCapture log;
    cimtest::TestTask task;
    CIM::TCCIMIpConnectionTcp connection(task.Get());
    namespace ip = cimtest::ip;
    // Bound, never listening: refuses.
    const ip::tcp::socket refusing(cimtest::PeerContext(), {ip::address_v4::loopback(), 0});
    // Never answers: its accept queue (backlog 0: one entry) is full, so the
    // kernel drops further SYNs.
    ip::tcp::acceptor silent(cimtest::PeerContext(), {ip::address_v4::loopback(), 0});
    silent.listen(0);
    ip::tcp::socket filler(cimtest::PeerContext());
    filler.connect(silent.local_endpoint());
    const uint16_t refused = refusing.local_endpoint().port(),
                   unanswered = silent.local_endpoint().port();
    const std::tuple<uint16_t, unsigned char, bool, milliseconds, const char*> cases[] = {
        {refused, 5, false, milliseconds(0), ") > Set connection error[111]."},
        {unanswered, 1, false, milliseconds(1000), ") > Set connection error[125]."},
        {unanswered, 1, true, milliseconds(4000), ") > Connection_handler after close."}};
    for (const auto& [port, timeout, holdLoop, least, logged] : cases) {
        SCOPED_TRACE(logged);
        log.Clear();
        std::promise<void> release;
        if (holdLoop) {
            boost::asio::post(task.Get()->GetIoContext(),
                              [held = release.get_future().share()]() { held.wait(); });
        }
        const Clock::time_point start = Clock::now();
        EXPECT_FALSE(connection.Connect(Loopback(port, CIM::TCP), timeout));
        EXPECT_GE(Since(start), least);
        EXPECT_LT(Since(start), least + Scaled(milliseconds(1000)));
        release.set_value();
        cimtest::RunOnLoop(task.Get());
        EXPECT_EQ(log.Count(logged), 1u);
        cimtest::EchoPeer<cimtest::ip::tcp> peer;
        EXPECT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), 1));
        connection.Disconnect();
    }
}

// Disconnect, or destruction, racing a read whose alarm is about to fire: the
// callback comes exactly once, and the destructor returns only when nothing
// of the connection is left on the loop. The read ends aborted (by the alarm
// or the close) or at the end of the stream that the shutdown makes.
TEST(TcpConnection, DisconnectOrDestructionWhileATimedReadIsPending) {
    cimtest::LogCapture log;
    cimtest::TestTask task;
    for (int round = 0; round < 24; ++round) {
        SCOPED_TRACE(round);
        cimtest::EchoPeer<cimtest::ip::tcp> peer;
        Completion read;
        std::vector<uint8_t> buffer(32);
        {
            CIM::TCCIMIpConnectionTcp connection(task.Get());
            ASSERT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), 0));
            connection.ReadData(buffer, uint16_t(round % 4), read.Callback());
            log.Clear();
            if (round % 2 == 0) {
                connection.Disconnect();
            }
        }
        ASSERT_EQ(read.Calls(), 1);
        const auto error = read.Wait().error;
        EXPECT_TRUE(error == boost::asio::error::operation_aborted ||
                    error == boost::asio::error::eof)
            << error.message();
        cimtest::RunOnLoop(task.Get());
        EXPECT_EQ(read.Calls(), 1);
        // Destroyed while connected: its Disconnect's lines come before the
        // template destructor's, which then finds nothing left to do.
        if (round % 2 == 1) {
            EXPECT_THAT(
                cimtest::ReadFile(log.Path()),
                testing::ContainsRegex(R"(~TCCIMIpConnectionTcp\(17\) > .*t_connected \[true\])"
                                       R"(.*unlock t_connected \[false\].*)"
                                       R"(~TCCIMIpConnectionTcp\(19\) > done.*)"
                                       R"(CIMIpConnection.h: ~TCCIMIpConnection\(64\) > this \[)"));
        }
    }
}

}  // namespace
