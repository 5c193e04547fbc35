// IP connections on loopback: TCP with 64 KiB buffers and UDP with 512-byte
// datagrams, both ways, against raw sockets; the library's own rows with its
// log at the default destination and with output "none".
#include "Bench.h"

#include <cimcore/CIMIpConnectionTcp.h>
#include <cimcore/CIMIpConnectionUdp.h>
#include <cimcore/CIMSemaphore.h>
#include <cimcore/CIMThreadPool.h>

#include "HostControl.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/io_context_strand.hpp>
#include <boost/asio/post.hpp>
#include <boost/bind/bind.hpp>
#include <boost/function.hpp>
#include <boost/make_shared.hpp>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace cimbench {
namespace {

constexpr size_t kChunk = 65536;
constexpr long kChunks = 4000;
constexpr size_t kDatagram = 512;
constexpr long kDatagrams = 100000;
// Datagrams in flight at most: well within a loopback socket's buffer, so
// none is dropped and every row moves the same number.
constexpr long kWindow = 64;

// Where the library's log goes during a row. The default destination of the
// host log is standard error; it is sent to a temporary file meanwhile, so
// each line is really written while the table stays readable.
class LogDestination {
public:
    explicit LogDestination(bool useDefault)
        : m_previous(cimhost::GetSetting(cimhost::EHostSetting::LOG_OUTPUT)) {
        if (useDefault) {
            char path[] = "/tmp/cim-bench-stderr-XXXXXX";
            const int fd = ::mkstemp(path);
            ::unlink(path);
            std::fflush(stderr);
            m_savedStderr = ::dup(2);
            ::dup2(fd, 2);
            ::close(fd);
            cimhost::SetSetting(cimhost::EHostSetting::LOG_OUTPUT, "");
        } else {
            cimhost::SetSetting(cimhost::EHostSetting::LOG_OUTPUT, "none");
        }
    }
    ~LogDestination() {
        cimhost::SetSetting(cimhost::EHostSetting::LOG_OUTPUT, m_previous);
        if (m_savedStderr >= 0) {
            std::fflush(stderr);
            ::dup2(m_savedStderr, 2);
            ::close(m_savedStderr);
        }
    }
    LogDestination(const LogDestination&) = delete;
    LogDestination& operator=(const LogDestination&) = delete;

private:
    std::string m_previous;
    int m_savedStderr = -1;
};

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

uint16_t LocalPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// A socket bound to an ephemeral loopback port.
int BoundSocket(int type) {
    const int fd = ::socket(AF_INET, type, 0);
    sockaddr_in address = Loopback(0);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    return fd;
}

void ReceiveTimeout(int fd, int seconds) {
    timeval limit{seconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

bool SendAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        data += sent;
        size -= size_t(sent);
    }
    return true;
}

CIM::UniCastDescriptor To(uint16_t port, CIM::EProtocolType protocol) {
    return CIM::UniCastDescriptor{CIM::IPv4, "127.0.0.1", port, protocol, boost::none, boost::none};
}

// ---- TCP, sending ------------------------------------------------------------------

// Accepts one connection and reads until the peer closes; returns the bytes.
class TcpSink {
public:
    TcpSink() : m_listener(BoundSocket(SOCK_STREAM)) {
        ::listen(m_listener, 1);
        m_thread = std::thread([this] {
            const int fd = ::accept(m_listener, nullptr, nullptr);
            ReceiveTimeout(fd, 30);
            std::vector<char> buffer(kChunk);
            for (ssize_t got; (got = ::recv(fd, buffer.data(), buffer.size(), 0)) > 0;) {
                m_bytes += got;
            }
            ::close(fd);
        });
    }
    ~TcpSink() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
        ::close(m_listener);
    }
    uint16_t Port() const { return LocalPort(m_listener); }
    long Finish() {
        m_thread.join();
        return m_bytes;
    }

private:
    int m_listener;
    long m_bytes = 0;
    std::thread m_thread;
};

// Seconds for n whole chunks: a partial send counts for what it moved.
double PerChunk(Run& run, double seconds, long bytes) {
    const double wanted = double(run.Iterations()) * double(kChunk);
    if (bytes <= 0) {
        run.Fail("nothing arrived");
        return 0;
    }
    if (double(bytes) < wanted) {
        run.Value("bytes moved per SendData", double(bytes) / double(run.Iterations()), "B");
    }
    return seconds * wanted / double(bytes);
}

double LibraryTcpSend(Run& run, bool defaultLog) {
    LogDestination log(defaultLog);
    TcpSink sink;
    auto task = boost::make_shared<CIM::TCCIMTask>("bench-tcp-send");
    double seconds = 0;
    long bytes = 0;
    {
        CIM::TCCIMIpConnectionTcp connection(task);
        if (!connection.Connect(To(sink.Port(), CIM::TCP), 2)) {
            run.Fail("Connect failed");
        }
        const std::vector<uint8_t> data(kChunk, 0x5a);
        const long n = run.Iterations();
        std::atomic<long> completions(0);
        std::atomic<long> reported(0);
        Latch allDone;
        const auto start = std::chrono::steady_clock::now();
        for (long i = 0; i < n; ++i) {
            connection.SendData(data, [&](const boost::system::error_code&, std::size_t sent) {
                reported += long(sent);
                if (++completions == n) {
                    allDone.Set();
                }
            });
        }
        allDone.Wait();
        connection.Disconnect();
        bytes = sink.Finish();
        seconds = SecondsSince(start);
        if (reported.load() != bytes) {
            run.Fail("the callbacks reported " + std::to_string(reported.load()) +
                     " bytes, the peer got " + std::to_string(bytes));
        }
    }
    task->Join();
    return PerChunk(run, seconds, bytes);
}

double RawTcpSend(Run& run) {
    TcpSink sink;
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = Loopback(sink.Port());
    ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const std::vector<char> data(kChunk, 0x5a);
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < run.Iterations(); ++i) {
        if (!SendAll(fd, data.data(), data.size())) {
            break;
        }
    }
    ::close(fd);
    const long bytes = sink.Finish();
    return PerChunk(run, SecondsSince(start), bytes);
}

// ---- TCP, receiving ------------------------------------------------------------------

// Accepts one connection, sends n chunks and closes.
class TcpSource {
public:
    explicit TcpSource(long chunks) : m_listener(BoundSocket(SOCK_STREAM)) {
        ::listen(m_listener, 1);
        m_thread = std::thread([this, chunks] {
            const int fd = ::accept(m_listener, nullptr, nullptr);
            const std::vector<char> data(kChunk, 0x5a);
            for (long i = 0; i < chunks && SendAll(fd, data.data(), data.size()); ++i) {
            }
            ::close(fd);
        });
    }
    ~TcpSource() {
        m_thread.join();
        ::close(m_listener);
    }
    uint16_t Port() const { return LocalPort(m_listener); }

private:
    int m_listener;
    std::thread m_thread;
};

// `chained`: the next ReadData starts from the callback of the last; else
// the caller waits for each read and starts the next.
double LibraryTcpReceive(Run& run, bool defaultLog, bool chained) {
    LogDestination log(defaultLog);
    const long wanted = run.Iterations() * long(kChunk);
    TcpSource source(run.Iterations());
    auto task = boost::make_shared<CIM::TCCIMTask>("bench-tcp-read");
    double seconds = 0;
    {
        CIM::TCCIMIpConnectionTcp connection(task);
        if (!connection.Connect(To(source.Port(), CIM::TCP), 2)) {
            run.Fail("Connect failed");
        }
        std::vector<uint8_t> buffer(kChunk);
        long received = 0;
        bool failed = false;
        const auto start = std::chrono::steady_clock::now();
        if (chained) {
            Latch done;
            std::function<void(const boost::system::error_code&, std::size_t)> onRead =
                [&](const boost::system::error_code& error, std::size_t bytes) {
                    received += long(bytes);
                    if (error || received >= wanted) {
                        failed = bool(error) && received < wanted;
                        done.Set();
                    } else {
                        connection.ReadData(buffer, boost::none, onRead);
                    }
                };
            connection.ReadData(buffer, boost::none, onRead);
            failed = !done.Wait() || failed;
        } else {
            CIM::TCCIMSemaphore ready(0);
            boost::system::error_code lastError;
            std::size_t lastBytes = 0;
            while (received < wanted && !failed) {
                connection.ReadData(buffer, boost::none,
                                    [&](const boost::system::error_code& error, std::size_t bytes) {
                                        lastError = error;
                                        lastBytes = bytes;
                                        ready.Give();
                                    });
                ready.Take();
                received += long(lastBytes);
                failed = bool(lastError) && received < wanted;
            }
        }
        seconds = SecondsSince(start);
        if (failed) {
            run.Fail("the stream ended early");
        }
        connection.Disconnect();
    }
    task->Join();
    return seconds;
}

// What ReadData fixes: an asynchronous receive on the loop thread, whose
// completion starts the next one; the callback passes through a
// boost::function, as the library's does.
double AsioTcpReceiveChained(Run& run) {
    const long wanted = run.Iterations() * long(kChunk);
    TcpSource source(run.Iterations());
    boost::asio::io_context context;
    boost::asio::ip::tcp::socket socket(context);
    boost::system::error_code error;
    socket.connect({boost::asio::ip::address_v4::loopback(), source.Port()}, error);
    if (error) {
        run.Fail("connect failed");
        return 0;
    }
    std::vector<uint8_t> buffer(kChunk);
    long received = 0;
    boost::function<void(const boost::system::error_code&, std::size_t)> onRead;
    onRead = [&](const boost::system::error_code& readError, std::size_t bytes) {
        received += long(bytes);
        if (!readError && received < wanted) {
            socket.async_receive(boost::asio::buffer(buffer), onRead);
        }
    };
    const auto start = std::chrono::steady_clock::now();
    socket.async_receive(boost::asio::buffer(buffer), onRead);
    std::thread loop([&] { context.run(); });
    loop.join();
    const double seconds = SecondsSince(start);
    if (received < wanted) {
        run.Fail("the stream ended early");
    }
    return seconds;
}

double RawTcpReceive(Run& run) {
    const long wanted = run.Iterations() * long(kChunk);
    TcpSource source(run.Iterations());
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = Loopback(source.Port());
    ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    std::vector<char> buffer(kChunk);
    long received = 0;
    const auto start = std::chrono::steady_clock::now();
    for (ssize_t got; received < wanted && (got = ::recv(fd, buffer.data(), kChunk, 0)) > 0;) {
        received += got;
    }
    const double seconds = SecondsSince(start);
    if (received < wanted) {
        run.Fail("the stream ended early");
    }
    ::close(fd);
    return seconds;
}

// ---- UDP ---------------------------------------------------------------------------

// Waits until fewer than kWindow datagrams are in flight; false on a stall.
bool WaitForWindow(long sent, const std::atomic<long>& received) {
    const auto start = std::chrono::steady_clock::now();
    while (sent - received.load() >= kWindow) {
        if (SecondsSince(start) > 5) {
            return false;
        }
        sched_yield();
    }
    return true;
}

// Receives datagrams on a raw socket, counting them, until n or a stall.
class UdpSink {
public:
    UdpSink() : m_fd(BoundSocket(SOCK_DGRAM)) { ReceiveTimeout(m_fd, 2); }
    ~UdpSink() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
        ::close(m_fd);
    }
    void Start(long n) {
        m_thread = std::thread([this, n] {
            char buffer[2048];
            while (count.load() < n && ::recv(m_fd, buffer, sizeof buffer, 0) > 0) {
                ++count;
            }
        });
    }
    uint16_t Port() const { return LocalPort(m_fd); }
    std::atomic<long> count{0};

private:
    int m_fd;
    std::thread m_thread;
};

// Calls `send` n times, keeping the window, then waits until the sink has
// every datagram; the seconds from the first send.
template <class Send>
double SendDatagrams(Run& run, UdpSink& sink, long n, Send send) {
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        if (!WaitForWindow(i, sink.count)) {
            run.Fail("datagrams lost");
            break;
        }
        send();
    }
    while (sink.count.load() < n && run.Failed().empty()) {
        if (!WaitForWindow(n, sink.count) && sink.count.load() < n) {
            run.Fail("datagrams lost");
        }
        sched_yield();
    }
    return SecondsSince(start);
}

double LibraryUdpSend(Run& run, bool defaultLog) {
    LogDestination log(defaultLog);
    UdpSink sink;
    const long n = run.Iterations();
    sink.Start(n);
    auto task = boost::make_shared<CIM::TCCIMTask>("bench-udp-send");
    double seconds = 0;
    {
        CIM::TCCIMIpConnectionUdp connection(task);
        if (!connection.Connect(To(sink.Port(), CIM::UDP), 2)) {
            run.Fail("Connect failed");
        }
        const std::vector<uint8_t> data(kDatagram, 0x5a);
        seconds = SendDatagrams(run, sink, n, [&] {
            connection.SendData(data, [](const boost::system::error_code&, std::size_t) {});
        });
        connection.Disconnect();
    }
    task->Join();
    return seconds;
}

double RawUdpSend(Run& run) {
    UdpSink sink;
    const long n = run.Iterations();
    sink.Start(n);
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in address = Loopback(sink.Port());
    ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const std::vector<char> data(kDatagram, 0x5a);
    const double seconds =
        SendDatagrams(run, sink, n, [&] { ::send(fd, data.data(), data.size(), 0); });
    ::close(fd);
    return seconds;
}

// What SendData fixes: the send on the caller's thread, then its callback,
// bound to the result, posted through a strand to the loop thread.
double RawUdpSendPostingCallback(Run& run) {
    UdpSink sink;
    const long n = run.Iterations();
    sink.Start(n);
    boost::asio::io_context context;
    boost::asio::io_context::strand strand(context);
    auto guard = boost::asio::make_work_guard(context);
    std::thread loop([&] { context.run(); });
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in address = Loopback(sink.Port());
    ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const std::vector<char> data(kDatagram, 0x5a);
    const boost::function<void(const boost::system::error_code&, std::size_t)> callback =
        [](const boost::system::error_code&, std::size_t) {};
    const double seconds = SendDatagrams(run, sink, n, [&] {
        const ssize_t sent = ::send(fd, data.data(), data.size(), 0);
        boost::asio::post(strand, boost::bind(callback, boost::system::error_code(),
                                              std::size_t(sent < 0 ? 0 : sent)));
    });
    guard.reset();
    loop.join();
    ::close(fd);
    return seconds;
}

// Sends n datagrams from a raw socket to `port`, keeping the window.
std::thread UdpSource(int fd, uint16_t port, long n, const std::atomic<long>& received,
                      std::atomic<bool>& stalled) {
    return std::thread([fd, port, n, &received, &stalled] {
        const sockaddr_in address = Loopback(port);
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        const std::vector<char> data(kDatagram, 0x5a);
        for (long i = 0; i < n; ++i) {
            if (!WaitForWindow(i, received)) {
                stalled = true;
                return;
            }
            ::send(fd, data.data(), data.size(), 0);
        }
    });
}

double LibraryUdpReceive(Run& run, bool defaultLog) {
    LogDestination log(defaultLog);
    const long n = run.Iterations();
    const int sourceFd = BoundSocket(SOCK_DGRAM);
    auto task = boost::make_shared<CIM::TCCIMTask>("bench-udp-read");
    double seconds = 0;
    {
        CIM::TCCIMIpConnectionUdp connection(task);
        if (!connection.Connect(To(LocalPort(sourceFd), CIM::UDP), 2)) {
            run.Fail("Connect failed");
        }
        std::vector<uint8_t> buffer(kDatagram);
        std::atomic<long> received(0);
        std::atomic<bool> stalled(false);
        Latch done;
        std::function<void(const boost::system::error_code&, std::size_t)> onRead =
            [&](const boost::system::error_code& error, std::size_t) {
                if (error || ++received == n) {
                    done.Set();
                } else {
                    connection.ReadData(buffer, boost::none, onRead);
                }
            };
        connection.ReadData(buffer, boost::none, onRead);
        const auto start = std::chrono::steady_clock::now();
        std::thread source = UdpSource(sourceFd, connection.GetSourcePort(), n, received, stalled);
        if (!done.Wait(std::chrono::milliseconds(30000)) || received.load() < n) {
            run.Fail("datagrams lost");
        }
        seconds = SecondsSince(start);
        source.join();
        connection.Disconnect();
    }
    task->Join();
    ::close(sourceFd);
    return seconds;
}

double RawUdpReceive(Run& run) {
    const long n = run.Iterations();
    const int sourceFd = BoundSocket(SOCK_DGRAM);
    const int fd = BoundSocket(SOCK_DGRAM);
    ReceiveTimeout(fd, 2);
    const sockaddr_in source = Loopback(LocalPort(sourceFd));
    ::connect(fd, reinterpret_cast<const sockaddr*>(&source), sizeof source);
    std::atomic<long> received(0);
    std::atomic<bool> stalled(false);
    const auto start = std::chrono::steady_clock::now();
    std::thread sender = UdpSource(sourceFd, LocalPort(fd), n, received, stalled);
    char buffer[kDatagram];
    while (received.load() < n && ::recv(fd, buffer, sizeof buffer, 0) > 0) {
        ++received;
    }
    const double seconds = SecondsSince(start);
    if (received.load() < n) {
        run.Fail("datagrams lost");
    }
    sender.join();
    ::close(fd);
    ::close(sourceFd);
    return seconds;
}

const bool kRegistered = [] {
    const char* const logs[] = {"log to default (stderr)", "log output none"};
    const std::string tcpSend = "TCP 64 KiB sent on loopback, per 64 KiB";
    for (int i = 0; i < 2; ++i) {
        Register(tcpSend, std::string("SendData, ") + logs[i], Role::kCimcore, kChunks,
                 [=](Run& run) { return LibraryTcpSend(run, i == 0); });
    }
    Register(tcpSend, "send(2) on a raw socket", Role::kPeerAndFloor, kChunks, RawTcpSend);

    const std::string tcpReceive = "TCP 64 KiB received on loopback, per 64 KiB";
    for (int i = 0; i < 2; ++i) {
        Register(tcpReceive, std::string("ReadData from its callback, ") + logs[i], Role::kCimcore,
                 kChunks, [=](Run& run) { return LibraryTcpReceive(run, i == 0, true); });
    }
    for (int i = 0; i < 2; ++i) {
        Register(tcpReceive, std::string("ReadData, caller waits each, ") + logs[i], Role::kCimcore,
                 kChunks, [=](Run& run) { return LibraryTcpReceive(run, i == 0, false); });
    }
    Register(tcpReceive, "async_receive chained on a loop thread", Role::kDesignFloor, kChunks,
             AsioTcpReceiveChained);
    Register(tcpReceive, "recv(2) on a raw socket", Role::kPeerAndFloor, kChunks, RawTcpReceive);

    const std::string udpSend = "UDP 512-byte datagrams sent on loopback, per datagram";
    for (int i = 0; i < 2; ++i) {
        Register(udpSend, std::string("SendData, ") + logs[i], Role::kCimcore, kDatagrams,
                 [=](Run& run) { return LibraryUdpSend(run, i == 0); });
    }
    Register(udpSend, "send(2), callback posted through a strand", Role::kDesignFloor, kDatagrams,
             RawUdpSendPostingCallback);
    Register(udpSend, "send(2) on a raw socket", Role::kPeerAndFloor, kDatagrams, RawUdpSend);

    const std::string udpReceive = "UDP 512-byte datagrams received on loopback, per datagram";
    for (int i = 0; i < 2; ++i) {
        Register(udpReceive, std::string("ReadData from its callback, ") + logs[i], Role::kCimcore,
                 kDatagrams, [=](Run& run) { return LibraryUdpReceive(run, i == 0); });
    }
    Register(udpReceive, "recv(2) on a raw socket", Role::kPeerAndFloor, kDatagrams, RawUdpReceive);
    return true;
}();

}  // namespace
}  // namespace cimbench
