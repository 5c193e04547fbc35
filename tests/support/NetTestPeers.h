// Real peers for the connection tests: small Boost.Asio servers on loopback,
// each blocking on its own thread, plus the plumbing the tests share.
#ifndef CIMCORE_TESTS_NETTESTPEERS_H
#define CIMCORE_TESTS_NETTESTPEERS_H

#include <cimcore/CIMIpConnection.h>
#include <cimcore/CIMThreadPool.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/socket.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/write.hpp>
#include <boost/make_shared.hpp>

namespace cimtest {

namespace ip = boost::asio::ip;
using Clock = std::chrono::steady_clock;

inline std::chrono::milliseconds Since(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

inline std::vector<uint8_t> Pattern(size_t size, unsigned seed) {
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i) {
        data[i] = uint8_t(i * 131 + seed * 7 + (i >> 8));
    }
    return data;
}

// The peers' sockets make blocking calls only; this context never runs.
inline boost::asio::io_context& PeerContext() {
    static boost::asio::io_context context;
    return context;
}

inline bool WaitReadable(int fd, std::chrono::milliseconds limit) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, int(limit.count())) > 0;
}

// A one-thread task for the connections under test; joined when it goes.
struct TestTask {
    ~TestTask() { task->Join(); }
    const boost::shared_ptr<CIM::TCCIMTask>& Get() const { return task; }
    boost::shared_ptr<CIM::TCCIMTask> task = boost::make_shared<CIM::TCCIMTask>("ipc-test");
};

// One operation's completion: hands the first result over to the test thread
// and counts the calls, so that a duplicate shows.
class Completion {
public:
    struct Result {
        boost::system::error_code error;
        std::size_t bytes;
        std::thread::id thread;
    };
    CIM::TCIMIpDataCallback Callback() {
        return [this](const boost::system::error_code& error, std::size_t bytes) {
            if (m_calls++ == 0) {
                m_promise.set_value(Result{error, bytes, std::this_thread::get_id()});
            }
        };
    }
    bool Done() const {
        return m_future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }
    Result Wait() {
        if (m_future.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
            throw std::runtime_error("completion callback not called in time");
        }
        return m_future.get();
    }
    int Calls() const { return m_calls; }

private:
    std::atomic<int> m_calls{0};
    std::promise<Result> m_promise;
    std::shared_future<Result> m_future = m_promise.get_future().share();
};

// Accepts one connection on 127.0.0.1 and echoes it until the other end
// closes. Shutting the listener down wakes an accept that waits in vain.
class TcpEchoPeer {
public:
    TcpEchoPeer() : m_thread([this]() { Serve(); }) {}
    ~TcpEchoPeer() {
        ::shutdown(m_listener.native_handle(), SHUT_RDWR);
        m_thread.join();
    }
    uint16_t Port() const { return m_port; }
    // The remote port of the accepted connection, as the peer sees it.
    uint16_t ClientPort() { return m_clientPort.get(); }

private:
    void Serve() {
        boost::system::error_code error;
        ip::tcp::socket socket(PeerContext());
        m_listener.accept(socket, error);
        m_clientPortPromise.set_value(error ? 0 : socket.remote_endpoint(error).port());
        std::vector<char> data(65536);
        for (std::size_t got;
             !error && (got = socket.read_some(boost::asio::buffer(data), error));) {
            boost::asio::write(socket, boost::asio::buffer(data.data(), got), error);
        }
    }
    ip::tcp::acceptor m_listener{PeerContext(), {ip::address_v4::loopback(), 0}};
    const uint16_t m_port = m_listener.local_endpoint().port();
    std::promise<uint16_t> m_clientPortPromise;
    std::shared_future<uint16_t> m_clientPort = m_clientPortPromise.get_future().share();
    std::thread m_thread;
};

// Never answers a new connection: its accept queue (backlog 0: one entry) is
// filled by a connection nobody accepts, and the kernel drops further SYNs.
struct SilentTcpPeer {
    SilentTcpPeer() {
        listener.listen(0);
        filler.connect(listener.local_endpoint());
    }
    ip::tcp::acceptor listener{PeerContext(), {ip::address_v4::loopback(), 0}};
    ip::tcp::socket filler{PeerContext()};
};

// Echoes every datagram on 127.0.0.1 to its sender and remembers the last
// sender's port.
class UdpEchoPeer {
public:
    UdpEchoPeer() : m_thread([this]() { Serve(); }) {}
    ~UdpEchoPeer() {
        m_stop = true;
        ::shutdown(m_socket.native_handle(), SHUT_RDWR);  // wakes the receive
        m_thread.join();
    }
    uint16_t Port() const { return m_port; }
    uint16_t LastSenderPort() const { return m_lastSenderPort; }

private:
    void Serve() {
        std::vector<char> data(65536);
        ip::udp::endpoint from;
        boost::system::error_code error;
        for (;;) {
            const std::size_t got =
                m_socket.receive_from(boost::asio::buffer(data), from, 0, error);
            if (m_stop) {
                return;
            }
            if (!error) {
                m_lastSenderPort = from.port();
                m_socket.send_to(boost::asio::buffer(data.data(), got), from, 0, error);
            }
        }
    }
    ip::udp::socket m_socket{PeerContext(), {ip::address_v4::loopback(), 0}};
    const uint16_t m_port = m_socket.local_endpoint().port();
    std::atomic<bool> m_stop{false};
    std::atomic<uint16_t> m_lastSenderPort{0};
    std::thread m_thread;
};

inline CIM::UniCastDescriptor Loopback(uint16_t port, CIM::EProtocolType protocol) {
    return CIM::UniCastDescriptor{CIM::IPv4, "127.0.0.1", port, protocol, {}, {}};
}

}  // namespace cimtest

#endif
