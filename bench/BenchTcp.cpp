// A 64-byte request and its echo over TCP on loopback.
#include "Bench.h"

#include <cimcore/CIMIpConnectionTcp.h>
#include <cimcore/CIMSemaphore.h>
#include <cimcore/CIMThreadPool.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/make_shared.hpp>

#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace cimbench {
namespace {

constexpr const char* kGroup = "64-byte TCP request and echo on loopback";
constexpr long kIterations = 20000;
constexpr size_t kSize = 64;

bool ReadFully(int fd, char* data, size_t size) {
    while (size > 0) {
        const ssize_t got = ::recv(fd, data, size, 0);
        if (got <= 0) {
            return false;
        }
        data += got;
        size -= size_t(got);
    }
    return true;
}

// A blocking echo peer on its own thread, serving one connection.
class EchoPeer {
public:
    EchoPeer() {
        m_listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(m_listener, 1);
        socklen_t length = sizeof address;
        ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] {
            const int fd = ::accept(m_listener, nullptr, nullptr);
            const int one = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            char data[kSize];
            while (ReadFully(fd, data, kSize) && ::send(fd, data, kSize, MSG_NOSIGNAL) > 0) {
            }
            ::close(fd);
        });
    }
    ~EchoPeer() {
        m_thread.join();
        ::close(m_listener);
    }
    uint16_t Port() const { return m_port; }

private:
    int m_listener;
    uint16_t m_port;
    std::thread m_thread;
};

double RawSocket(long n) {
    EchoPeer peer;
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(peer.Port());
    ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    char data[kSize] = {};
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        if (::send(fd, data, kSize, MSG_NOSIGNAL) <= 0 || !ReadFully(fd, data, kSize)) {
            break;
        }
    }
    const double seconds = SecondsSince(start);
    ::close(fd);
    return seconds;
}

double AsioBlocking(long n) {
    EchoPeer peer;
    boost::asio::io_context context;
    boost::asio::ip::tcp::socket socket(context);
    socket.connect({boost::asio::ip::address_v4::loopback(), peer.Port()});
    socket.set_option(boost::asio::ip::tcp::no_delay(true));
    std::vector<char> data(kSize);
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        boost::asio::write(socket, boost::asio::buffer(data));
        boost::asio::read(socket, boost::asio::buffer(data));
    }
    const double seconds = SecondsSince(start);
    socket.close();
    return seconds;
}

// The same hand-offs as the library: the I/O runs on a loop thread and the
// caller waits for each completion.
double AsioAsync(long n) {
    EchoPeer peer;
    boost::asio::io_context context;
    auto guard = boost::asio::make_work_guard(context);
    std::thread loop([&] { context.run(); });
    boost::asio::ip::tcp::socket socket(context);
    socket.connect({boost::asio::ip::address_v4::loopback(), peer.Port()});
    CIM::TCCIMSemaphore done(0);
    std::vector<char> request(kSize);
    std::vector<char> reply(kSize);
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        boost::asio::async_write(socket, boost::asio::buffer(request),
                                 [](const boost::system::error_code&, std::size_t) {});
        boost::asio::async_read(
            socket, boost::asio::buffer(reply),
            [&](const boost::system::error_code&, std::size_t) { done.Give(); });
        done.Take();
    }
    const double seconds = SecondsSince(start);
    socket.close();
    guard.reset();
    loop.join();
    return seconds;
}

double LibraryConnection(long n) {
    EchoPeer peer;
    auto task = boost::make_shared<CIM::TCCIMTask>("bench-tcp");
    double seconds = 0;
    {
        CIM::TCCIMIpConnectionTcp connection(task);
        const CIM::UniCastDescriptor peerAddress{CIM::IPv4, "127.0.0.1", peer.Port(),
                                                 CIM::TCP,  boost::none, boost::none};
        connection.Connect(peerAddress, 2);
        CIM::TCCIMSemaphore done(0);
        std::vector<uint8_t> request(kSize);
        std::vector<uint8_t> reply(kSize);
        size_t received = 0;
        const auto start = std::chrono::steady_clock::now();
        for (long i = 0; i < n; ++i) {
            connection.SendData(request, [](const boost::system::error_code&, std::size_t) {});
            // The echo may arrive in pieces; read until the whole of it is in.
            for (size_t have = 0; have < kSize; have += received) {
                reply.assign(kSize - have, 0);
                connection.ReadData(reply, boost::none,
                                    [&](const boost::system::error_code& error, std::size_t bytes) {
                                        received = error ? kSize : bytes;
                                        done.Give();
                                    });
                done.Take();
            }
        }
        seconds = SecondsSince(start);
        connection.Disconnect();
    }
    task->Join();
    return seconds;
}

const Registrar kLibrary(kGroup, "cimcore CIM::TCCIMIpConnectionTcp (async, on a task)", true,
                         kIterations, LibraryConnection);
const Registrar kAsioAsync(kGroup, "Boost.Asio async on a loop thread, caller waits", false,
                           kIterations, AsioAsync);
const Registrar kAsio(kGroup, "Boost.Asio blocking socket on the caller's thread", false,
                      kIterations, AsioBlocking);
const Registrar kRaw(kGroup, "send/recv on a raw socket (machine limit)", false, kIterations,
                     RawSocket);

}  // namespace
}  // namespace cimbench
