// Member definitions of the connection template. Not installed: included
// only by the sources that instantiate the template explicitly (TCP, UDP);
// everybody else sees the declaration and the extern instantiations.
#ifndef CIMCORE_SRC_CORE_CIMIPCONNECTIONIMPL_H
#define CIMCORE_SRC_CORE_CIMIPCONNECTIONIMPL_H

#include <cimcore/internal/CIMIpConnection.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <future>
#include <string>

#include <boost/asio/connect.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/thread/thread.hpp>

#include <cim_api.h>
#include <cimcore/internal/CIMLog.h>

#include "CIMRecycler.h"

namespace CIM {

namespace IpConnectionDetail {
constexpr const char* kFile = "CIMIpConnection.h";
}  // namespace IpConnectionDetail

template <typename Protocol>
TCCIMIpConnection<Protocol>::TCCIMIpConnection(boost::shared_ptr<TCCIMTask> task)
    : m_task(std::move(task)),
      t_connected(false),
      m_socket(m_task->GetIoContext()),
      m_readAlarms(std::make_shared<TSReadAlarms>()) {
    Log::Info(IpConnectionDetail::kFile, "TCCIMIpConnection", 58, "this [%p]",
              static_cast<void*>(this));
}

template <typename Protocol>
TCCIMIpConnection<Protocol>::~TCCIMIpConnection() {
    using IpConnectionDetail::kFile;
    try {
        Log::Info(kFile, "~TCCIMIpConnection", 64, "this [%p]", static_cast<void*>(this));
        TCCIMIpConnection::Disconnect();
        Log::Info(kFile, "~TCCIMIpConnection", 66, "%s", "done");
        m_WaitForLoop();
        m_alarm.reset();
        if (m_socket.is_open()) {
            boost::system::error_code ignored;
            m_socket.close(ignored);
        }
    } catch (...) {
        std::terminate();
    }
    // The socket is destroyed before m_task is released: it belongs to the
    // task's io_context, which may go with the last reference.
}

template <typename Protocol>
bool TCCIMIpConnection<Protocol>::Connect(const UniCastDescriptor& descriptor,
                                          unsigned char timeoutSeconds) {
    using IpConnectionDetail::kFile;
    Log::Info(kFile, "Connect", 83, "%s timeoutSeconds[%hhu]", ToString(descriptor).c_str(),
              timeoutSeconds);
    if (descriptor.destinationType == DESTINATION_BY_ILLEGAL) {
        return false;
    }
    try {
        // Connect holds the only strong reference: once it has returned, a
        // late connect handler finds the promise gone.
        auto promise = std::make_shared<ConnectPromise>();
        std::future<boost::system::error_code> future = promise->get_future();
        if (descriptor.destinationType == HOSTNAME) {
            m_StartConnectByName(descriptor, timeoutSeconds, promise);
        } else if (m_StartConnectByAddress(descriptor, timeoutSeconds, promise)) {
            return t_connected;
        }
        return m_AwaitConnect(future, timeoutSeconds);
    } catch (const std::exception& error) {
        Log::Info(kFile, "Connect", 162, "Exception [%s]", error.what());
        // A failed connect leaves the socket closed, so the object can be
        // connected again; a connection that was already up is left alone.
        if (!t_connected && m_socket.is_open()) {
            boost::system::error_code ignored;
            m_socket.close(ignored);
        }
        return false;
    }
}

template <typename Protocol>
void TCCIMIpConnection<Protocol>::m_StartConnectByName(
    const UniCastDescriptor& descriptor, unsigned char timeoutSeconds,
    const std::weak_ptr<ConnectPromise>& weakPromise) {
    using IpConnectionDetail::kFile;
    typename Protocol::resolver resolver(m_task->GetIoContext());
    const auto endpoints = resolver.resolve(descriptor.destination, std::to_string(descriptor.port),
                                            Protocol::resolver::address_configured);
    Log::Info(kFile, "Connect", 104, "%s", "Hostname resolved");
    // Deliberately before any socket is opened: on a fresh connection the
    // address-reuse option fails with a bad descriptor and Connect returns
    // false. Callers rely on this order.
    m_SetSocketOptions(descriptor);
    if (timeoutSeconds != 0) {
        Log::Info(kFile, "Connect", 110, "%s", "Start async connection.");
        boost::asio::async_connect(m_socket, endpoints,
                                   [this, weakPromise](const boost::system::error_code& error,
                                                       const typename Protocol::endpoint&) {
                                       m_OnConnect(weakPromise, error);
                                   });
    } else {
        Log::Info(kFile, "Connect", 118, "%s", "Start connection.");
        boost::asio::connect(m_socket, endpoints);
        t_connected = true;
    }
}

template <typename Protocol>
bool TCCIMIpConnection<Protocol>::m_StartConnectByAddress(
    const UniCastDescriptor& descriptor, unsigned char timeoutSeconds,
    const std::weak_ptr<ConnectPromise>& weakPromise) {
    using IpConnectionDetail::kFile;
    m_socket.open(t_CreateProtocol(descriptor.destinationType == IPv6));
    Log::Info(kFile, "Connect", 124, "%s", "Socket opened");
    m_SetSocketOptions(descriptor);
    const typename Protocol::endpoint endpoint(
        boost::asio::ip::make_address(descriptor.destination), descriptor.port);
    if (timeoutSeconds != 0) {
        Log::Info(kFile, "Connect", 129, "%s", "Start async connection.");
        m_socket.async_connect(endpoint,
                               [this, weakPromise](const boost::system::error_code& error) {
                                   m_OnConnect(weakPromise, error);
                               });
        return false;
    }
    Log::Info(kFile, "Connect", 135, "%s", "Start connection.");
    m_socket.connect(endpoint);
    Log::Info(kFile, "Connect", 137, "%s", "Socket connected successfuly.");
    t_connected = true;
    return true;
}

template <typename Protocol>
bool TCCIMIpConnection<Protocol>::m_AwaitConnect(std::future<boost::system::error_code>& future,
                                                 unsigned char timeoutSeconds) {
    using IpConnectionDetail::kFile;
    if (timeoutSeconds != 0 &&
        future.wait_for(std::chrono::seconds(timeoutSeconds)) != std::future_status::ready) {
        Log::Info(kFile, "Connect", 145, "%s", "Connection timeout. Socket cancel.");
        boost::system::error_code ignored;
        m_socket.cancel(ignored);
        // Ends early once the cancelled handler has run.
        future.wait_for(std::chrono::seconds(3));
    }
    if (!t_connected) {
        Log::Info(kFile, "Connect", 152, "%s", "Socket close if open.");
        if (m_socket.is_open()) {
            boost::system::error_code ignored;
            m_socket.close(ignored);
        }
    } else {
        Log::Info(kFile, "Connect", 158, "%s", "Socket connected successfuly.");
    }
    return t_connected;
}

template <typename Protocol>
bool TCCIMIpConnection<Protocol>::ConnectMulticast(const MultiCastDescriptor&) {
    return false;
}

template <typename Protocol>
void TCCIMIpConnection<Protocol>::Disconnect() {
    using IpConnectionDetail::kFile;
    Log::Info(kFile, "Disconnect", 180, "this [%p] t_connected [%s]", static_cast<void*>(this),
              ToString(t_connected.load()).c_str());
    // Marked disconnected before anything else, so handlers that run from
    // here on leave the socket alone.
    if (!t_connected.exchange(false)) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_observerMutex);
    Log::Info(kFile, "Disconnect", 188, "%s", "locked");
    if (m_alarm) {
        m_alarm->StopTimer();
    }
    // Earlier reads may still have alarms running: m_alarm is only the last.
    m_StopReadAlarms();
    boost::system::error_code error;
    m_socket.shutdown(Socket::shutdown_both, error);
    if (error) {
        Log::Error(kFile, "Disconnect", 195, "shutdown error %s", error.message().c_str());
    }
    m_socket.close(error);
    if (error) {
        Log::Error(kFile, "Disconnect", 199, "close error %s", error.message().c_str());
    }
    Log::Info(kFile, "Disconnect", 201, "unlock t_connected [%s]",
              ToString(t_connected.load()).c_str());
}

template <typename Protocol>
void TCCIMIpConnection<Protocol>::SendData(const std::vector<uint8_t>& data,
                                           TCIMIpDataCallback callback) {
    using IpConnectionDetail::kFile;
    Log::Info(kFile, "SendData", 209, "size [%zu]", data.size());
    if (!t_connected) {
        Log::Info(kFile, "SendData", 211, "%s", "disconnected");
        callback(boost::asio::error::connection_aborted, 0);
        return;
    }
    boost::system::error_code error;
    const std::size_t sent = t_SocketSynchronousWrite(data, error);
    // Never inside SendData: the callback always runs on the loop.
    boost::asio::post(m_task->GetStrand(), Recycled([callback = std::move(callback), error,
                                                     sent]() { callback(error, sent); }));
}

template <typename Protocol>
void TCCIMIpConnection<Protocol>::ReadData(std::vector<uint8_t>& data,
                                           boost::optional<uint16_t> timeoutMs,
                                           TCIMIpDataCallback callback) {
    using IpConnectionDetail::kFile;
    if (!t_connected) {
        Log::Info(kFile, "ReadData", 228, "%s", "disconnected");
        callback(boost::asio::error::connection_aborted, 0);
        return;
    }
    // The waiting bytes are counted only for this line: a system call saved
    // on every read while nobody reads the log.
    if (Log::IsOn()) {
        boost::system::error_code availableError;
        const std::size_t available = m_socket.available(availableError);
        if (!availableError && available > 0) {
            Log::Info(kFile, "ReadData", 235, "availableData [%zu] data.size [%zu] timeout [%hu]ms",
                      available, data.size(), static_cast<unsigned short>(timeoutMs.value_or(0)));
        }
    }
    boost::shared_ptr<TCCIMAlarm> alarm;
    if (timeoutMs) {
        TICIMAlarmObserverSafe* observer = this;
        alarm = TCCIMAlarm::CreateAlarm(
            observer, m_task, [this]() { m_OnReadTimeoutCb(); }, ALARM_COUNT_ONCE, "LSC");
        m_alarm = alarm;
        {
            std::lock_guard<std::mutex> lock(m_readAlarms->mutex);
            m_readAlarms->alarms.push_back(alarm);
        }
        alarm->SetTimer(*timeoutMs);
    }
    // The handler stops the alarm of its own read, not whatever m_alarm holds
    // by the time it runs: a later ReadData may already have replaced it. It
    // stops it also when disconnected: Disconnect may not have reached the
    // list yet, and the alarm must not leave it unstopped.
    auto read = std::allocate_shared<TSRead>(TCRecyclingAllocator<TSRead>(), this, std::move(alarm),
                                             std::move(callback), m_readAlarms);
    t_SocketAsynchronousRead(data, TSReadCompletion{std::move(read)});
}

template <typename Protocol>
void TCCIMIpConnection<Protocol>::TSReadCompletion::operator()(
    const boost::system::error_code& error, std::size_t transferred) const {
    TSRead& read = *m_read;
    if (read.alarm) {
        read.alarm->StopTimer();
        // Behind the stop on the strand: once dropped, the alarm is silent.
        boost::asio::post(read.connection->m_task->GetStrand(),
                          Recycled([readAlarms = read.readAlarms, alarm = read.alarm]() {
                              std::lock_guard<std::mutex> lock(readAlarms->mutex);
                              auto& alarms = readAlarms->alarms;
                              alarms.erase(std::remove(alarms.begin(), alarms.end(), alarm),
                                           alarms.end());
                          }));
    }
    if (error && error != boost::asio::error::operation_aborted) {
        Log::Info(IpConnectionDetail::kFile, "operator()", 254,
                  "this [%p] transferred [%zu] error [%s]", static_cast<void*>(read.connection),
                  transferred, error.message().c_str());
    }
    read.callback(error, transferred);
}

template <typename Protocol>
uint16_t TCCIMIpConnection<Protocol>::GetSourcePort() {
    using IpConnectionDetail::kFile;
    if (!t_connected) {
        Log::Info(kFile, "GetSourcePort", 266, "%s", "disconnected");
        return 0;
    }
    const uint16_t port = m_socket.local_endpoint().port();
    Log::Info(kFile, "GetSourcePort", 270, "Source port [%u]", static_cast<unsigned>(port));
    return port;
}

template <typename Protocol>
bool TCCIMIpConnection<Protocol>::IsConnected() {
    return t_connected;
}

template <typename Protocol>
void TCCIMIpConnection<Protocol>::t_SocketAsynchronousRead(std::vector<uint8_t>& data,
                                                           TCIMIpDataCallback callback) {
    m_socket.async_receive(boost::asio::buffer(data), callback);
}

template <typename Protocol>
void TCCIMIpConnection<Protocol>::t_LockAlarmObserverSafe() {
    m_observerMutex.lock();
}

template <typename Protocol>
void TCCIMIpConnection<Protocol>::t_UnlockAlarmObserverSafe() {
    m_observerMutex.unlock();
}

template <typename Protocol>
bool TCCIMIpConnection<Protocol>::m_SetSocketOptions(const UniCastDescriptor& descriptor) {
    using IpConnectionDetail::kFile;
    m_socket.set_option(boost::asio::socket_base::reuse_address(true));
    Log::Info(kFile, "m_SetSocketOptions", 299, "%s", "Option set");
    if (descriptor.sourceAddress && descriptor.sourcePort) {
        m_socket.bind(typename Protocol::endpoint(
            boost::asio::ip::make_address(*descriptor.sourceAddress), *descriptor.sourcePort));
        Log::Info(kFile, "m_SetSocketOptions", 303, "%s", "source bind");
    }
    return true;
}

template <typename Protocol>
void TCCIMIpConnection<Protocol>::m_OnConnect(const std::weak_ptr<ConnectPromise>& weakPromise,
                                              const boost::system::error_code& error) {
    using IpConnectionDetail::kFile;
    t_connected = !error;
    const std::shared_ptr<ConnectPromise> promise = weakPromise.lock();
    if (!promise) {
        Log::Info(kFile, "Connection_handler", 315, "%s", "Connection_handler after close.");
        return;
    }
    Log::Info(kFile, "Connection_handler", 318, "Set connection error[%d].", error.value());
    promise->set_value(error);
}

template <typename Protocol>
void TCCIMIpConnection<Protocol>::m_OnReadTimeoutCb() {
    // Under the observer mutex, so that the cancel never meets Disconnect's
    // shutdown and close of the same socket half-way.
    std::lock_guard<std::mutex> lock(m_observerMutex);
    if (t_connected) {
        boost::system::error_code ignored;
        m_socket.cancel(ignored);
    } else {
        Log::Info(IpConnectionDetail::kFile, "m_OnReadTimeoutCb", 331, "%s", "disconnected");
    }
}

template <typename Protocol>
void TCCIMIpConnection<Protocol>::m_WaitForLoop() {
    // Handlers of this connection (the read handler, the connect handler, an
    // expiry of the read alarm) may still be queued on the loop. Once the
    // task has been joined nothing runs any more; on the task's own thread
    // nothing can be waited for.
    boost::asio::io_context& loop = m_task->GetIoContext();
    if (boost::this_thread::get_id() == m_task->GetTaskThreadId() || loop.stopped()) {
        return;
    }
    if (m_alarm) {
        m_alarm->Join();
    }
    // An alarm no longer listed has had its stop carried out.
    for (const boost::shared_ptr<TCCIMAlarm>& alarm : m_PendingReadAlarms()) {
        alarm->Join();
    }
    // The task has one thread: a marker posted now runs after every
    // completion that closing the socket has already queued.
    auto marker = std::make_shared<std::promise<void>>();
    std::future<void> done = marker->get_future();
    boost::asio::post(loop, [marker]() { marker->set_value(); });
    while (done.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
        if (loop.stopped()) {
            break;
        }
    }
}

template <typename Protocol>
void TCCIMIpConnection<Protocol>::m_StopReadAlarms() {
    for (const boost::shared_ptr<TCCIMAlarm>& alarm : m_PendingReadAlarms()) {
        alarm->StopTimer();
    }
}

template <typename Protocol>
std::vector<boost::shared_ptr<TCCIMAlarm>> TCCIMIpConnection<Protocol>::m_PendingReadAlarms()
    const {
    std::lock_guard<std::mutex> lock(m_readAlarms->mutex);
    return m_readAlarms->alarms;
}

}  // namespace CIM

#endif
