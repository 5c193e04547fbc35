// IP connections the way the stack opens them for a CI module: a TCP session
// and a UDP exchange with servers that the demo runs on loopback, and a
// source-filtered multicast reception inside a private network namespace.
#include "Demo.h"

#include <cimcore/CIMIpConnectionTcp.h>
#include <cimcore/CIMIpConnectionUdp.h>
#include <cimcore/CIMThreadPool.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>

namespace cimdemo {
namespace {

using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point start) {
    return long(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

sockaddr_in Address(const char* text, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_pton(AF_INET, text, &address.sin_addr);
    return address;
}

uint16_t PortOf(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

int Bound(int type, const char* address, uint16_t port, bool reuse = false) {
    const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (reuse) {
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    }
    const sockaddr_in local = Address(address, port);
    if (fd >= 0 && ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// The result of one read or send, handed from the task's thread to ours.
struct Outcome {
    boost::system::error_code error;
    size_t bytes = 0;
};

Outcome Send(CIM::TICIMIpConnection& connection, const std::string& text) {
    std::promise<Outcome> done;
    connection.SendData(std::vector<uint8_t>(text.begin(), text.end()),
                        [&done](const boost::system::error_code& error, size_t bytes) {
                            done.set_value(Outcome{error, bytes});
                        });
    return done.get_future().get();
}

Outcome Read(CIM::TICIMIpConnection& connection, std::vector<uint8_t>& buffer,
             boost::optional<uint16_t> timeoutMs) {
    std::promise<Outcome> done;
    connection.ReadData(buffer, timeoutMs,
                        [&done](const boost::system::error_code& error, size_t bytes) {
                            done.set_value(Outcome{error, bytes});
                        });
    return done.get_future().get();
}

std::string Text(const std::vector<uint8_t>& buffer, size_t bytes) {
    return std::string(buffer.begin(), buffer.begin() + long(bytes));
}

bool TcpSession(Context& context, const boost::shared_ptr<CIM::TCCIMTask>& task) {
    const int listener = Bound(SOCK_STREAM, "127.0.0.1", 0);
    if (listener < 0 || ::listen(listener, 1) != 0) {
        Say("cannot listen on loopback: %s", std::strerror(errno));
        return false;
    }
    const uint16_t port = PortOf(listener);
    // The module's server: answers each message with "ack:" and the message.
    std::thread server([listener]() {
        const int fd = ::accept(listener, nullptr, nullptr);
        if (fd < 0) {
            return;
        }
        char buffer[256];
        for (ssize_t got; (got = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) {
            const std::string answer = "ack:" + std::string(buffer, size_t(got));
            ::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
        ::close(fd);
    });

    bool ok = true;
    const size_t mark = LogMark(context);
    {
        CIM::TCCIMIpConnectionTcp connection(task);
        const CIM::UniCastDescriptor server{CIM::IPv4, "127.0.0.1", port, CIM::TCP, {}, {}};
        Clock::time_point start = Clock::now();
        const bool connected = connection.Connect(server, 2);
        Say("TCP Connect(%s, 2 s) -> %s in %ld ms, local port %u", CIM::ToString(server).c_str(),
            connected ? "true" : "false", MsSince(start), unsigned(connection.GetSourcePort()));
        ok = ok && connected;
        if (connected) {
            const Outcome sent = Send(connection, "hello module");
            Say("SendData(\"hello module\") -> %zu bytes, %s", sent.bytes,
                sent.error.message().c_str());
            std::vector<uint8_t> buffer(64);
            Outcome read = Read(connection, buffer, uint16_t(1000));
            Say("ReadData(64 bytes, 1000 ms) -> \"%s\", %s", Text(buffer, read.bytes).c_str(),
                read.error.message().c_str());
            ok = ok && !read.error && Text(buffer, read.bytes) == "ack:hello module";

            start = Clock::now();
            read = Read(connection, buffer, uint16_t(150));
            Say("ReadData(64 bytes, 150 ms) with the server silent -> error %d (%s), %zu bytes, "
                "after %ld ms",
                read.error.value(), read.error.message().c_str(), read.bytes, MsSince(start));
            ok = ok && read.error.value() == 125;
            connection.Disconnect();
            Say("Disconnect() -> IsConnected() %s", connection.IsConnected() ? "true" : "false");
        }
    }
    ::shutdown(listener, SHUT_RDWR);
    server.join();
    ::close(listener);
    Say("the connection's own log lines:");
    ShowLog(context, mark, "CIMIpConnection");
    return ok;
}

bool UdpExchange(const boost::shared_ptr<CIM::TCCIMTask>& task) {
    const int peer = Bound(SOCK_DGRAM, "127.0.0.1", 0);
    if (peer < 0) {
        Say("cannot bind a UDP socket on loopback: %s", std::strerror(errno));
        return false;
    }
    std::thread echo([peer]() {
        char buffer[1500];
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t got =
            ::recvfrom(peer, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (got > 0) {
            ::sendto(peer, buffer, size_t(got), 0, reinterpret_cast<sockaddr*>(&from), length);
        }
    });
    bool ok = false;
    {
        CIM::TCCIMIpConnectionUdp connection(task);
        const CIM::UniCastDescriptor server{CIM::IPv4, "127.0.0.1", PortOf(peer), CIM::UDP, {}, {}};
        if (connection.Connect(server, 0)) {
            std::vector<uint8_t> buffer(1500);
            std::promise<Outcome> done;
            connection.ReadData(buffer, uint16_t(1000),
                                [&done](const boost::system::error_code& error, size_t bytes) {
                                    done.set_value(Outcome{error, bytes});
                                });
            Send(connection, "datagram to the module");
            const Outcome read = done.get_future().get();
            Say("UDP %s: sent \"datagram to the module\", echoed back \"%s\" (%s)",
                CIM::ToString(server).c_str(), Text(buffer, read.bytes).c_str(),
                read.error.message().c_str());
            ok = !read.error && Text(buffer, read.bytes) == "datagram to the module";
            connection.Disconnect();
        }
    }
    if (!ok) {
        // Unblock the echo thread if nothing reached it.
        const sockaddr_in self = Address("127.0.0.1", PortOf(peer));
        ::sendto(peer, "", 0, 0, reinterpret_cast<const sockaddr*>(&self), sizeof self);
    }
    echo.join();
    ::close(peer);
    return ok;
}

// Makes the calling thread's private network namespace fit for multicast on
// loopback: lo up with its multicast flag, and a route for 224.0.0.0/4.
std::string PrepareLoopbackMulticast() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    std::string failure;
    if (::ioctl(fd, SIOCGIFFLAGS, &request) != 0) {
        failure = std::string("reading the flags of lo: ") + std::strerror(errno);
    } else {
        request.ifr_flags = short(request.ifr_flags | IFF_UP | IFF_MULTICAST);
        if (::ioctl(fd, SIOCSIFFLAGS, &request) != 0) {
            failure = std::string("switching lo on: ") + std::strerror(errno);
        }
    }
    if (failure.empty()) {
        rtentry route{};
        char device[] = "lo";
        reinterpret_cast<sockaddr_in&>(route.rt_dst) = Address("224.0.0.0", 0);
        reinterpret_cast<sockaddr_in&>(route.rt_genmask) = Address("240.0.0.0", 0);
        route.rt_flags = RTF_UP;
        route.rt_dev = device;
        if (::ioctl(fd, SIOCADDRT, &route) != 0) {
            failure = std::string("adding the multicast route: ") + std::strerror(errno);
        }
    }
    ::close(fd);
    return failure;
}

// Runs on a thread of its own, which alone moves into a fresh network
// namespace: nothing of it reaches a real network.
bool MulticastReception(const boost::shared_ptr<CIM::TCCIMTask>& task, std::string& skipped) {
    if (::unshare(CLONE_NEWNET) != 0) {
        skipped = std::string("cannot make a private network namespace (") + std::strerror(errno) +
                  "; it needs root)";
        return true;
    }
    skipped = PrepareLoopbackMulticast();
    if (!skipped.empty()) {
        return true;
    }
    const char* group = "232.1.1.1";
    const int listed = Bound(SOCK_DGRAM, "127.0.0.2", 0);
    const int other = Bound(SOCK_DGRAM, "127.0.0.3", 0);
    const int reserve = Bound(SOCK_DGRAM, "0.0.0.0", 0, true);
    const uint16_t port = PortOf(reserve);
    bool ok = false;
    {
        CIM::TCCIMIpConnectionUdp connection(task);
        const CIM::MultiCastDescriptor descriptor{CIM::IPv4, group, port, true, {"127.0.0.2"}};
        try {
            ok = connection.ConnectMulticast(descriptor);
            Say("ConnectMulticast(%s) -> %s", CIM::ToString(descriptor).c_str(),
                ok ? "true" : "false");
        } catch (const std::exception& error) {
            Say("ConnectMulticast(%s) raised \"%s\"", CIM::ToString(descriptor).c_str(),
                error.what());
        }
        if (ok) {
            const sockaddr_in to = Address(group, port);
            const std::string blocked = "from 127.0.0.3, not on the list";
            const std::string wanted = "from 127.0.0.2, on the list";
            ::sendto(other, blocked.data(), blocked.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to);
            ::sendto(listed, wanted.data(), wanted.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to);
            std::vector<uint8_t> buffer(1500);
            const Outcome read = Read(connection, buffer, uint16_t(1000));
            Say("two sources sent to the group; the first datagram received: \"%s\" (%s)",
                Text(buffer, read.bytes).c_str(), read.error.message().c_str());
            ok = !read.error && Text(buffer, read.bytes) == wanted;
            const Outcome own = Send(connection, "the receiver's own datagram");
            const Outcome next = Read(connection, buffer, uint16_t(100));
            Say("its own datagram to the group (%zu bytes) is not looped back: the next read "
                "ends with error %d",
                own.bytes, next.error.value());
            ok = ok && next.error.value() == 125;
            connection.Disconnect();
        }
    }
    ::close(reserve);
    ::close(other);
    ::close(listed);
    return ok;
}

bool RunConnections(Context& context) {
    auto task = boost::make_shared<CIM::TCCIMTask>("demo-ipc-task");
    bool ok = TcpSession(context, task);
    ok = UdpExchange(task) && ok;

    std::string skipped;
    bool multicastOk = false;
    std::thread namespaced([&]() { multicastOk = MulticastReception(task, skipped); });
    namespaced.join();
    if (!skipped.empty()) {
        Say("multicast skipped: %s", skipped.c_str());
    }
    ok = ok && multicastOk;
    task->Join();
    return ok;
}

const SectionRegistrar kRegistrar(40, "IP connections: TCP, UDP and IPv4 multicast",
                                  RunConnections);

}  // namespace
}  // namespace cimdemo
