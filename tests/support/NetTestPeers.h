// Real peers for the connection tests: small plain-socket servers on
// loopback, each on its own thread, and a task that joins itself.
#ifndef CIMCORE_TESTS_NETTESTPEERS_H
#define CIMCORE_TESTS_NETTESTPEERS_H

#include <cimcore/CIMIpConnection.h>
#include <cimcore/CIMThreadPool.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

namespace cimtest {

inline void ThrowErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

inline sockaddr_in Ipv4Address(const std::string& address, uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    if (::inet_pton(AF_INET, address.c_str(), &result.sin_addr) != 1) {
        throw std::invalid_argument("not an IPv4 literal: " + address);
    }
    return result;
}

inline uint16_t LocalPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ThrowErrno("getsockname");
    }
    return ntohs(address.sin_port);
}

// A socket of the given type bound to address:port (port 0: any free one).
inline int BoundSocket(int type, const std::string& address, uint16_t port, bool reuse = false) {
    const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        ThrowErrno("socket");
    }
    const int one = 1;
    if (reuse) {
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    }
    const sockaddr_in local = Ipv4Address(address, port);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        const int error = errno;
        ::close(fd);
        throw std::system_error(error, std::generic_category(), "bind " + address);
    }
    return fd;
}

// Waits up to `timeoutMs` for the descriptor to become readable.
inline bool WaitReadable(int fd, int timeoutMs) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, timeoutMs) > 0;
}

// A one-thread task for the connections under test; joined when it goes.
class TestTask {
public:
    TestTask() : m_task(boost::make_shared<CIM::TCCIMTask>("ipc-test")) {}
    ~TestTask() { m_task->Join(); }
    TestTask(const TestTask&) = delete;
    TestTask& operator=(const TestTask&) = delete;
    const boost::shared_ptr<CIM::TCCIMTask>& Get() const { return m_task; }

private:
    boost::shared_ptr<CIM::TCCIMTask> m_task;
};

// One operation's completion callback, handing its result over to the test
// thread and counting how often it was called.
class Completion {
public:
    struct Result {
        boost::system::error_code error;
        std::size_t bytes;
        std::thread::id thread;
    };
    Completion() : m_future(m_promise.get_future()) {}
    Completion(const Completion&) = delete;
    Completion& operator=(const Completion&) = delete;

    CIM::TCIMIpDataCallback Callback() {
        return [this](const boost::system::error_code& error, std::size_t bytes) {
            if (m_calls.fetch_add(1) == 0) {
                m_promise.set_value(Result{error, bytes, std::this_thread::get_id()});
            }
        };
    }
    bool Done() const {
        return m_future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }
    // Fails the calling test through an exception if nothing comes in time.
    Result Wait(std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
        if (m_future.wait_for(limit) != std::future_status::ready) {
            throw std::runtime_error("completion callback not called in time");
        }
        return m_future.get();
    }
    int Calls() const { return m_calls; }

private:
    std::atomic<int> m_calls{0};
    std::promise<Result> m_promise;
    std::shared_future<Result> m_future;
};

// A TCP listener on 127.0.0.1 whose thread accepts one connection and hands
// it to `serve`. The listener is shut down (waking the accept) when the peer
// goes.
class TcpPeer {
public:
    using Serve = std::function<void(int fd)>;

    explicit TcpPeer(Serve serve) : m_listener(BoundSocket(SOCK_STREAM, "127.0.0.1", 0)) {
        if (::listen(m_listener, 4) != 0) {
            ThrowErrno("listen");
        }
        m_port = LocalPort(m_listener);
        m_thread = std::thread([this, serve]() {
            const int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                m_clientPort.set_value(0);
                return;
            }
            sockaddr_in remote{};
            socklen_t length = sizeof remote;
            ::getpeername(fd, reinterpret_cast<sockaddr*>(&remote), &length);
            m_clientPort.set_value(ntohs(remote.sin_port));
            serve(fd);
            ::close(fd);
        });
    }
    ~TcpPeer() {
        ::shutdown(m_listener, SHUT_RDWR);
        m_thread.join();
        ::close(m_listener);
    }
    TcpPeer(const TcpPeer&) = delete;
    TcpPeer& operator=(const TcpPeer&) = delete;

    uint16_t Port() const { return m_port; }
    // The remote port of the accepted connection, as the peer sees it.
    uint16_t ClientPort() { return m_clientPortFuture.get(); }

    // Echoes everything until the other end closes.
    static void Echo(int fd) {
        std::vector<char> buffer(65536);
        for (;;) {
            const ssize_t got = ::recv(fd, buffer.data(), buffer.size(), 0);
            if (got <= 0) {
                return;
            }
            for (ssize_t sent = 0; sent < got;) {
                const ssize_t n =
                    ::send(fd, buffer.data() + sent, size_t(got - sent), MSG_NOSIGNAL);
                if (n <= 0) {
                    return;
                }
                sent += n;
            }
        }
    }

private:
    int m_listener;
    uint16_t m_port = 0;
    std::promise<uint16_t> m_clientPort;
    std::shared_future<uint16_t> m_clientPortFuture = m_clientPort.get_future();
    std::thread m_thread;
};

// A loopback port that refuses connections: bound, never listening.
class RefusingPort {
public:
    RefusingPort() : m_fd(BoundSocket(SOCK_STREAM, "127.0.0.1", 0)), m_port(LocalPort(m_fd)) {}
    ~RefusingPort() { ::close(m_fd); }
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;
    uint16_t Port() const { return m_port; }

private:
    int m_fd;
    uint16_t m_port;
};

// A listener that never answers a new connection: its accept queue (length
// 0, so one entry) is filled by a connection nobody accepts, and the kernel
// drops every further SYN.
class SilentTcpPeer {
public:
    SilentTcpPeer() : m_listener(BoundSocket(SOCK_STREAM, "127.0.0.1", 0)) {
        if (::listen(m_listener, 0) != 0) {
            ThrowErrno("listen");
        }
        m_port = LocalPort(m_listener);
        m_filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in remote = Ipv4Address("127.0.0.1", m_port);
        if (::connect(m_filler, reinterpret_cast<const sockaddr*>(&remote), sizeof remote) != 0) {
            ThrowErrno("connect filler");
        }
    }
    ~SilentTcpPeer() {
        ::close(m_filler);
        ::close(m_listener);
    }
    SilentTcpPeer(const SilentTcpPeer&) = delete;
    SilentTcpPeer& operator=(const SilentTcpPeer&) = delete;
    uint16_t Port() const { return m_port; }

private:
    int m_listener;
    int m_filler;
    uint16_t m_port = 0;
};

// A UDP socket on 127.0.0.1 whose thread echoes every datagram to its sender
// and remembers the last sender's port.
class UdpEchoPeer {
public:
    UdpEchoPeer() : m_fd(BoundSocket(SOCK_DGRAM, "127.0.0.1", 0)), m_port(LocalPort(m_fd)) {
        m_thread = std::thread([this]() {
            std::vector<char> buffer(65536);
            while (!m_stop) {
                if (!WaitReadable(m_fd, 20)) {
                    continue;
                }
                sockaddr_in from{};
                socklen_t length = sizeof from;
                const ssize_t got = ::recvfrom(m_fd, buffer.data(), buffer.size(), 0,
                                               reinterpret_cast<sockaddr*>(&from), &length);
                if (got < 0) {
                    continue;
                }
                m_lastSenderPort = ntohs(from.sin_port);
                ::sendto(m_fd, buffer.data(), size_t(got), 0,
                         reinterpret_cast<const sockaddr*>(&from), length);
            }
        });
    }
    ~UdpEchoPeer() {
        m_stop = true;
        m_thread.join();
        ::close(m_fd);
    }
    UdpEchoPeer(const UdpEchoPeer&) = delete;
    UdpEchoPeer& operator=(const UdpEchoPeer&) = delete;
    uint16_t Port() const { return m_port; }
    uint16_t LastSenderPort() const { return m_lastSenderPort; }

private:
    int m_fd;
    uint16_t m_port;
    std::atomic<bool> m_stop{false};
    std::atomic<uint16_t> m_lastSenderPort{0};
    std::thread m_thread;
};

inline CIM::UniCastDescriptor Loopback(uint16_t port, CIM::EProtocolType protocol) {
    return CIM::UniCastDescriptor{CIM::IPv4, "127.0.0.1", port, protocol, {}, {}};
}

}  // namespace cimtest

#endif
