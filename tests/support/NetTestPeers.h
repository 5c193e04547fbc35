// Real peers for the connection tests: small Boost.Asio servers on loopback,
// each blocking on its own thread, plus the task plumbing the tests share.
#ifndef CIMCORE_TESTS_NETTESTPEERS_H
#define CIMCORE_TESTS_NETTESTPEERS_H

#include <cimcore/CIMIpConnection.h>
#include <cimcore/CIMThreadPool.h>

#include "TestSupport.h"

#include <future>
#include <stdexcept>
#include <type_traits>

#include <sys/socket.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/make_shared.hpp>

namespace cimtest {

namespace ip = boost::asio::ip;

inline std::vector<uint8_t> Pattern(size_t size) {
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i) {
        data[i] = uint8_t(i * 131 + size + (i >> 8));
    }
    return data;
}

// The peers' sockets make blocking calls only; this context never runs.
inline boost::asio::io_context& PeerContext() {
    static boost::asio::io_context context;
    return context;
}

inline CIM::UniCastDescriptor Loopback(uint16_t port, CIM::EProtocolType protocol) {
    return CIM::UniCastDescriptor{CIM::IPv4, "127.0.0.1", port, protocol, {}, {}};
}

// A one-thread task for the connections under test; joined when it goes.
struct TestTask {
    ~TestTask() { task->Join(); }
    const boost::shared_ptr<CIM::TCCIMTask>& Get() const { return task; }
    boost::shared_ptr<CIM::TCCIMTask> task = boost::make_shared<CIM::TCCIMTask>("ipc-test");
};

// Runs `work` on the task's thread and waits: what was queued before has run.
inline void RunOnLoop(
    const boost::shared_ptr<CIM::TCCIMTask>& task, const std::function<void()>& work = [] {}) {
    std::promise<void> done;
    boost::asio::post(task->GetIoContext(), [&] {
        work();
        done.set_value();
    });
    done.get_future().wait();
}

// One operation's completion: hands the first result to the test thread and
// counts the calls, so that a duplicate shows.
struct CompletionResult {
    boost::system::error_code error;
    std::size_t bytes;
};
struct Completion : Recorder<CompletionResult> {
    CIM::TCIMIpDataCallback Callback() {
        return [this](const boost::system::error_code& error, std::size_t bytes) {
            Add({error, bytes});
        };
    }
    CompletionResult Wait() {
        if (!AwaitCount(1, std::chrono::seconds(5))) {
            throw std::runtime_error("completion callback not called in time");
        }
        return All()[0];
    }
};

// One send or read through the connection, waited for.
inline CompletionResult Send(CIM::TICIMIpConnection& connection, const std::vector<uint8_t>& data) {
    Completion done;
    connection.SendData(data, done.Callback());
    return done.Wait();
}
inline CompletionResult Read(CIM::TICIMIpConnection& connection, std::vector<uint8_t>& buffer,
                             boost::optional<uint16_t> timeoutMs) {
    Completion done;
    connection.ReadData(buffer, timeoutMs, done.Callback());
    return done.Wait();
}

// Echoes on 127.0.0.1 from its own thread: over TCP one accepted connection
// until the other end closes, over UDP every datagram to its sender. Shutting
// the socket down wakes a blocking call that waits in vain.
template <typename Protocol>
class EchoPeer {
public:
    EchoPeer() : m_thread([this]() { Serve(); }) {}
    ~EchoPeer() {
        ::shutdown(m_socket.native_handle(), SHUT_RDWR);
        m_thread.join();
    }
    uint16_t Port() const { return m_port; }

private:
    static constexpr bool kTcp = std::is_same_v<Protocol, ip::tcp>;
    void Serve() {
        std::vector<char> data(65536);
        boost::system::error_code error;
        std::size_t got;
        if constexpr (kTcp) {
            ip::tcp::socket socket(PeerContext());
            m_socket.accept(socket, error);
            while (!error && (got = socket.read_some(boost::asio::buffer(data), error)) > 0) {
                boost::asio::write(socket, boost::asio::buffer(data.data(), got), error);
            }
        } else {
            ip::udp::endpoint from;
            // After the shutdown the receive gives 0 bytes or an error.
            while ((got = m_socket.receive_from(boost::asio::buffer(data), from, 0, error)) > 0 &&
                   !error) {
                m_socket.send_to(boost::asio::buffer(data.data(), got), from, 0, error);
            }
        }
    }
    std::conditional_t<kTcp, ip::tcp::acceptor, ip::udp::socket> m_socket{
        PeerContext(), {ip::address_v4::loopback(), 0}};
    const uint16_t m_port = m_socket.local_endpoint().port();
    std::thread m_thread;
};

}  // namespace cimtest

#endif
