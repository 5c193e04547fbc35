#include <cimcore/CIMIpConnectionTcp.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <boost/asio/post.hpp>

#include <algorithm>
#include <list>

namespace {

using cimtest::Clock;
using cimtest::Completion;
using cimtest::Loopback;
using cimtest::Scaled;
using cimtest::Since;
using std::chrono::milliseconds;

// Waits until every handler queued on the task's loop so far has run.
void DrainLoop(const boost::shared_ptr<CIM::TCCIMTask>& task) {
    std::promise<void> ran;
    boost::asio::post(task->GetIoContext(), [&ran]() { ran.set_value(); });
    ran.get_future().wait();
}

// Holds the task's loop up until the returned promise is fulfilled.
std::promise<void> HoldLoop(const boost::shared_ptr<CIM::TCCIMTask>& task) {
    std::promise<void> release;
    boost::asio::post(task->GetIoContext(),
                      [released = release.get_future().share()]() { released.wait(); });
    return release;
}

// Sends all of `payload` (each SendData may take only part) from a second
// thread while this one keeps a read pending, so the echo never stalls both
// directions, and returns what came back. The first read is pending before
// the sends start: it puts the socket into the mode the loop needs.
std::vector<uint8_t> EchoRoundTrip(CIM::TCCIMIpConnectionTcp& connection,
                                   const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> received, buffer(65536);
    std::list<Completion> reads(1);
    connection.ReadData(buffer, boost::none, reads.back().Callback());
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
        reads.emplace_back();
        connection.ReadData(buffer, boost::none, reads.back().Callback());
    }
}

TEST(TcpConnection, ConnectsWithAndWithoutTimeoutAndEchoesUpToOneMebibyte) {
    cimtest::TestTask task;
    for (const unsigned char timeout : {0, 3}) {
        SCOPED_TRACE(int(timeout));
        cimtest::TcpEchoPeer peer;
        CIM::TCCIMIpConnectionTcp connection(task.Get());
        const Clock::time_point start = Clock::now();
        ASSERT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), timeout));
        EXPECT_LT(Since(start), Scaled(milliseconds(1000)));
        EXPECT_EQ(connection.GetSourcePort(), peer.ClientPort());
        for (const size_t size : {size_t(1), size_t(1000), size_t(200000), size_t(1) << 20}) {
            const std::vector<uint8_t> payload = cimtest::Pattern(size, unsigned(size));
            EXPECT_TRUE(EchoRoundTrip(connection, payload) == payload) << size;
        }
        connection.Disconnect();
        EXPECT_FALSE(connection.IsConnected());
        EXPECT_EQ(connection.GetSourcePort(), 0);
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
    // Bound, never listening: refuses.
    const cimtest::ip::tcp::socket refusing(cimtest::PeerContext(),
                                            {cimtest::ip::address_v4::loopback(), 0});
    const cimtest::SilentTcpPeer silent;
    const uint16_t refused = refusing.local_endpoint().port();
    const uint16_t unanswered = silent.listener.local_endpoint().port();
    const std::tuple<uint16_t, unsigned char, bool, milliseconds, const char*> cases[] = {
        {refused, 5, false, milliseconds(0), ") > Set connection error[111]."},
        {unanswered, 1, false, milliseconds(1000), ") > Set connection error[125]."},
        {unanswered, 1, true, milliseconds(4000), ") > Connection_handler after close."}};
    for (const auto& [port, timeout, holdLoop, least, logged] : cases) {
        SCOPED_TRACE(logged);
        log.Clear();
        std::promise<void> release = holdLoop ? HoldLoop(task.Get()) : std::promise<void>();
        const Clock::time_point start = Clock::now();
        EXPECT_FALSE(connection.Connect(Loopback(port, CIM::TCP), timeout));
        const milliseconds took = Since(start);
        release.set_value();
        DrainLoop(task.Get());
        EXPECT_GE(took, least);
        EXPECT_LT(took, least + Scaled(milliseconds(1000)));
        EXPECT_EQ(log.Count(logged), 1u);
        EXPECT_FALSE(connection.IsConnected());
        cimtest::TcpEchoPeer peer;
        EXPECT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), 1));
        connection.Disconnect();
    }
}

// Data within the time-out ends the read and stops its alarm: the next read,
// with a longer time-out, is not cut short by the old one.
TEST(TcpConnection, ReadTimeoutsCompleteWith125AndLeaveTheConnectionUsable) {
    cimtest::TestTask task;
    cimtest::TcpEchoPeer peer;
    CIM::TCCIMIpConnectionTcp connection(task.Get());
    ASSERT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), 0));
    std::vector<uint8_t> buffer(16);
    Completion sent, read, quiet;
    connection.SendData({'a', 'b', 'c'}, sent.Callback());
    connection.ReadData(buffer, uint16_t(100), read.Callback());
    ASSERT_EQ(read.Wait().bytes, 3u);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 3), "abc");

    const Clock::time_point start = Clock::now();
    connection.ReadData(buffer, uint16_t(400), quiet.Callback());
    EXPECT_FALSE(quiet.Done());
    EXPECT_EQ(quiet.Wait().error.value(), 125);
    EXPECT_EQ(quiet.Wait().bytes, 0u);
    EXPECT_GE(Since(start), milliseconds(400));
    EXPECT_LT(Since(start), milliseconds(400) + Scaled(milliseconds(1000)));
    EXPECT_EQ(read.Calls(), 1);
}

// Disconnect (and destruction) racing a read whose alarm is about to fire:
// the callback comes exactly once, and by the time the destructor returns
// nothing of the connection is left on the loop. The read ends aborted (by
// the alarm or the close) or at the end of the stream that the shutdown
// makes, whichever the loop sees first.
TEST(TcpConnection, DisconnectOrDestructionWhileATimedReadIsPending) {
    cimtest::TestTask task;
    for (int round = 0; round < 24; ++round) {
        SCOPED_TRACE(round);
        cimtest::TcpEchoPeer peer;
        Completion read;
        std::vector<uint8_t> buffer(32);
        {
            CIM::TCCIMIpConnectionTcp connection(task.Get());
            ASSERT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), 0));
            connection.ReadData(buffer, uint16_t(round % 4), read.Callback());
            // Not a hand-over: only shifts the Disconnect against the expiry
            // from round to round.
            if (round % 3 == 1) {
                std::this_thread::sleep_for(std::chrono::microseconds(300 * (round % 5)));
            }
            connection.Disconnect();
            if (round % 2 == 0) {
                read.Wait();
            }
        }
        ASSERT_TRUE(read.Done());
        const auto result = read.Wait();
        EXPECT_TRUE(result.error == boost::asio::error::operation_aborted ||
                    result.error == boost::asio::error::eof)
            << result.error.message();
        EXPECT_EQ(result.bytes, 0u);
        DrainLoop(task.Get());
        EXPECT_EQ(read.Calls(), 1);
    }

    // With the loop held up until the destructor has disconnected, the read's
    // completion is still queued when the destructor would be done: it must
    // wait for it rather than leave it to run on a destroyed object. Its
    // Disconnect comes before the template's destructor, which then finds
    // nothing left to do.
    cimtest::LogCapture log;
    cimtest::TcpEchoPeer peer;
    Completion read;
    std::vector<uint8_t> buffer(32);
    std::thread releaser;
    {
        CIM::TCCIMIpConnectionTcp connection(task.Get());
        ASSERT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), 0));
        connection.ReadData(buffer, uint16_t(5000), read.Callback());
        log.Clear();
        releaser = std::thread([&log, release = HoldLoop(task.Get())]() mutable {
            while (log.Count("~TCCIMIpConnectionTcp(19) > done") == 0) {
                std::this_thread::yield();
            }
            release.set_value();
        });
    }
    EXPECT_TRUE(read.Done());
    releaser.join();
    EXPECT_EQ(read.Wait().error.value(), 125);
    const auto messages = log.Messages();
    auto position = messages.begin();
    for (const char* text : {"~TCCIMIpConnectionTcp(17) > ", "t_connected [true]",
                             "unlock t_connected [false]", "~TCCIMIpConnectionTcp(19) > done",
                             "CIMIpConnection.h: ~TCCIMIpConnection(64) > this ["}) {
        position = std::find_if(position, messages.end(), [text](const std::string& message) {
            return message.find(text) != std::string::npos;
        });
        ASSERT_NE(position, messages.end()) << "missing or out of order: " << text;
    }
    EXPECT_EQ(log.Count("unlock t_connected"), 1u);
    EXPECT_EQ(log.Count("error"), 0u);
}

}  // namespace
