#include <cimcore/CIMIpConnectionTcp.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <boost/asio/post.hpp>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace {

using cimtest::Completion;
using cimtest::LogCapture;
using cimtest::Loopback;
using cimtest::Scaled;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

milliseconds Since(Clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

std::vector<uint8_t> Pattern(size_t size, unsigned seed) {
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i) {
        data[i] = uint8_t((i * 131 + seed * 7 + (i >> 8)) & 0xFF);
    }
    return data;
}

// Waits until every handler queued on the task's loop so far has run.
void DrainLoop(const boost::shared_ptr<CIM::TCCIMTask>& task) {
    std::promise<void> ran;
    boost::asio::post(task->GetIoContext(), [&ran]() { ran.set_value(); });
    ran.get_future().wait();
}

// Sends all of `payload` from a second thread (each SendData may take only
// part) while this thread keeps a read pending, and returns what came back.
std::vector<uint8_t> EchoRoundTrip(CIM::TCCIMIpConnectionTcp& connection,
                                   const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> received;
    std::vector<uint8_t> buffer(65536);
    auto pending = std::make_unique<Completion>();
    connection.ReadData(buffer, boost::none, pending->Callback());

    // The read above is pending before the sender starts, so the socket is
    // already in the mode that the loop needs when the sends begin.
    std::thread sender([&connection, &payload]() {
        size_t offset = 0;
        while (offset < payload.size()) {
            const std::vector<uint8_t> rest(payload.begin() + long(offset), payload.end());
            Completion sent;
            connection.SendData(rest, sent.Callback());
            const auto result = sent.Wait();
            EXPECT_FALSE(result.error) << result.error.message();
            EXPECT_NE(result.thread, std::this_thread::get_id());
            if (result.error || result.bytes == 0) {
                return;
            }
            offset += result.bytes;
        }
    });
    while (received.size() < payload.size()) {
        const auto result = pending->Wait();
        if (result.error) {
            ADD_FAILURE() << "read failed: " << result.error.message();
            break;
        }
        EXPECT_NE(result.thread, std::this_thread::get_id());
        received.insert(received.end(), buffer.begin(), buffer.begin() + long(result.bytes));
        if (received.size() < payload.size()) {
            pending = std::make_unique<Completion>();
            connection.ReadData(buffer, boost::none, pending->Callback());
        }
    }
    sender.join();
    return received;
}

TEST(TcpConnection, ConnectsWithAndWithoutTimeoutAndEchoesUpToOneMebibyte) {
    cimtest::TestTask task;
    for (const unsigned char timeout : {0, 3}) {
        SCOPED_TRACE(int(timeout));
        cimtest::TcpPeer peer(cimtest::TcpPeer::Echo);
        CIM::TCCIMIpConnectionTcp connection(task.Get());
        const Clock::time_point start = Clock::now();
        ASSERT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), timeout));
        EXPECT_LT(Since(start), Scaled(milliseconds(1000)));
        EXPECT_TRUE(connection.IsConnected());
        EXPECT_EQ(connection.GetSourcePort(), peer.ClientPort());

        unsigned seed = 1;
        for (const size_t size : {size_t(1), size_t(1000), size_t(200000), size_t(1) << 20}) {
            SCOPED_TRACE(size);
            const std::vector<uint8_t> payload = Pattern(size, seed++);
            EXPECT_TRUE(EchoRoundTrip(connection, payload) == payload);
        }
        connection.Disconnect();
        EXPECT_FALSE(connection.IsConnected());
        EXPECT_EQ(connection.GetSourcePort(), 0);
    }
}

// A refused connect ends with its handler, long before the time-out; a peer
// that never answers costs the time-out, and the socket is closed either way
// (the same object then connects again).
TEST(TcpConnection, FailedConnectsReturnFalseAndCloseTheSocket) {
    LogCapture log;
    cimtest::TestTask task;
    CIM::TCCIMIpConnectionTcp connection(task.Get());
    auto expectReusable = [&connection]() {
        cimtest::TcpPeer peer(cimtest::TcpPeer::Echo);
        EXPECT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), 1));
        connection.Disconnect();
    };

    {
        cimtest::RefusingPort refusing;
        const Clock::time_point start = Clock::now();
        EXPECT_FALSE(connection.Connect(Loopback(refusing.Port(), CIM::TCP), 5));
        EXPECT_LT(Since(start), Scaled(milliseconds(1000)));
        EXPECT_EQ(log.Count(") > Set connection error[111]."), 1u);
        EXPECT_EQ(log.Count("Connection timeout"), 0u);
        EXPECT_EQ(log.Count(") > Socket close if open."), 1u);
        EXPECT_FALSE(connection.IsConnected());
        expectReusable();
    }

    cimtest::SilentTcpPeer silent;
    {
        log.Clear();
        const Clock::time_point start = Clock::now();
        EXPECT_FALSE(connection.Connect(Loopback(silent.Port(), CIM::TCP), 1));
        const milliseconds took = Since(start);
        EXPECT_GE(took, milliseconds(1000));
        // The cancelled handler runs at once, which ends the extra wait.
        EXPECT_LT(took, milliseconds(1000) + Scaled(milliseconds(1000)));
        EXPECT_EQ(log.Count(") > Connection timeout. Socket cancel."), 1u);
        EXPECT_EQ(log.Count(") > Set connection error[125]."), 1u);
        EXPECT_EQ(log.Count(") > Socket close if open."), 1u);
        EXPECT_FALSE(connection.IsConnected());
        expectReusable();
    }

    // With the loop held up, the cancelled handler cannot run: Connect gives
    // up 3 s after the time-out, and the handler, when it finally runs, finds
    // the promise gone.
    {
        log.Clear();
        std::promise<void> release;
        std::shared_future<void> released = release.get_future().share();
        boost::asio::post(task.Get()->GetIoContext(), [released]() { released.wait(); });
        const Clock::time_point start = Clock::now();
        EXPECT_FALSE(connection.Connect(Loopback(silent.Port(), CIM::TCP), 1));
        const milliseconds took = Since(start);
        release.set_value();
        EXPECT_GE(took, milliseconds(4000));
        EXPECT_LT(took, milliseconds(4000) + Scaled(milliseconds(1000)));
        DrainLoop(task.Get());
        EXPECT_EQ(log.Count(") > Connection_handler after close."), 1u);
        EXPECT_EQ(log.Count("Set connection error"), 0u);
        EXPECT_FALSE(connection.IsConnected());
        expectReusable();
    }
}

TEST(TcpConnection, ReadTimeoutsCompleteWith125AndLeaveTheConnectionUsable) {
    LogCapture log;
    cimtest::TestTask task;
    cimtest::TcpPeer peer(cimtest::TcpPeer::Echo);
    CIM::TCCIMIpConnectionTcp connection(task.Get());
    ASSERT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), 0));
    std::vector<uint8_t> buffer(16);

    {
        Completion read;
        const Clock::time_point start = Clock::now();
        connection.ReadData(buffer, uint16_t(50), read.Callback());
        EXPECT_FALSE(read.Done());
        const auto result = read.Wait();
        const milliseconds took = Since(start);
        EXPECT_EQ(result.error.value(), 125);
        EXPECT_EQ(result.bytes, 0u);
        EXPECT_NE(result.thread, std::this_thread::get_id());
        EXPECT_GE(took, milliseconds(50));
        EXPECT_LT(took, Scaled(milliseconds(1000)));
        EXPECT_EQ(log.Count("transferred"), 0u);
    }

    // Data within the time-out completes the read and stops its alarm: the
    // next read, with a longer time-out, is not cut short by the old one.
    {
        Completion sent;
        connection.SendData({'a', 'b', 'c'}, sent.Callback());
        EXPECT_EQ(sent.Wait().bytes, 3u);
        Completion read;
        connection.ReadData(buffer, uint16_t(100), read.Callback());
        const auto result = read.Wait();
        EXPECT_FALSE(result.error);
        ASSERT_EQ(result.bytes, 3u);
        EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 3), "abc");

        Completion quiet;
        const Clock::time_point start = Clock::now();
        connection.ReadData(buffer, uint16_t(400), quiet.Callback());
        EXPECT_EQ(quiet.Wait().error.value(), 125);
        EXPECT_GE(Since(start), milliseconds(400));
        EXPECT_EQ(read.Calls(), 1);
    }

    // Bytes already waiting when a read starts are logged with its limits.
    // The echo of five bytes comes as one segment: a read of two leaves three.
    {
        Completion sent;
        connection.SendData(std::vector<uint8_t>(5, 'x'), sent.Callback());
        EXPECT_EQ(sent.Wait().bytes, 5u);
        std::vector<uint8_t> small(2);
        Completion first;
        connection.ReadData(small, boost::none, first.Callback());
        ASSERT_EQ(first.Wait().bytes, 2u);
        log.Clear();
        Completion rest;
        connection.ReadData(buffer, uint16_t(300), rest.Callback());
        EXPECT_EQ(rest.Wait().bytes, 3u);
        EXPECT_EQ(log.Count(") > availableData [3] data.size [16] timeout [300]ms"), 1u);
    }
    connection.Disconnect();
}

TEST(TcpConnection, DestroyingAConnectedObjectDisconnectsBeforeTheTemplateDestructor) {
    LogCapture log;
    cimtest::TestTask task;
    cimtest::TcpPeer peer(cimtest::TcpPeer::Echo);
    {
        CIM::TCCIMIpConnectionTcp connection(task.Get());
        ASSERT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), 0));
        log.Clear();
    }
    const auto messages = log.Messages();
    auto index = [&messages](const std::string& text) {
        const auto found =
            std::find_if(messages.begin(), messages.end(),
                         [&](const std::string& m) { return m.find(text) != std::string::npos; });
        return found == messages.end() ? -1 : int(found - messages.begin());
    };
    const int tcpEnter = index("CIMIpConnectionTcp.cpp: ~TCCIMIpConnectionTcp(17) > ");
    const int connected = index("t_connected [true]");
    const int shutDown = index("unlock t_connected [false]");
    const int tcpDone = index("CIMIpConnectionTcp.cpp: ~TCCIMIpConnectionTcp(19) > done");
    const int templateEnter = index("CIMIpConnection.h: ~TCCIMIpConnection(64) > this [");
    ASSERT_GE(tcpEnter, 0);
    EXPECT_LT(tcpEnter, connected);
    EXPECT_LT(connected, shutDown);
    EXPECT_LT(shutDown, tcpDone);
    EXPECT_LT(tcpDone, templateEnter);
    // The template's own Disconnect then finds nothing left to do.
    EXPECT_EQ(log.Count("unlock t_connected"), 1u);
    EXPECT_EQ(log.Count("error"), 0u);
}

// Disconnect (and destruction) racing a read whose alarm is about to fire:
// the callback comes exactly once, and by the time the destructor returns
// nothing of the connection is left on the loop. The read ends aborted (by
// the alarm or the close) or at the end of the stream that the shutdown
// makes, whichever the loop sees first.
TEST(TcpConnection, DisconnectWhileATimedReadIsPending) {
    cimtest::TestTask task;
    for (int round = 0; round < 24; ++round) {
        SCOPED_TRACE(round);
        cimtest::TcpPeer peer(cimtest::TcpPeer::Echo);
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
            EXPECT_FALSE(connection.IsConnected());
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
    // wait for it rather than leave it to run on a destroyed object.
    LogCapture log;
    cimtest::TcpPeer peer(cimtest::TcpPeer::Echo);
    Completion read;
    std::vector<uint8_t> buffer(32);
    std::promise<void> release;
    std::thread releaser;
    {
        CIM::TCCIMIpConnectionTcp connection(task.Get());
        ASSERT_TRUE(connection.Connect(Loopback(peer.Port(), CIM::TCP), 0));
        connection.ReadData(buffer, uint16_t(5000), read.Callback());
        std::shared_future<void> released = release.get_future().share();
        boost::asio::post(task.Get()->GetIoContext(), [released]() { released.wait(); });
        releaser = std::thread([&log, &release]() {
            while (log.Count("~TCCIMIpConnectionTcp(19) > done") == 0) {
                std::this_thread::yield();
            }
            release.set_value();
        });
    }
    EXPECT_TRUE(read.Done());
    releaser.join();
    EXPECT_EQ(read.Wait().error.value(), 125);
}

}  // namespace
