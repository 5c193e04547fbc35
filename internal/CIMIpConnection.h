// The one implementation of TICIMIpConnection, written once over the
// transport (boost::asio::ip::tcp or boost::asio::ip::udp) and completed by
// TCCIMIpConnectionTcp and TCCIMIpConnectionUdp.
#ifndef CIMCORE_INTERNAL_CIMIPCONNECTION_H
#define CIMCORE_INTERNAL_CIMIPCONNECTION_H

#include <cimcore/Export.h>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/system/error_code.hpp>

#include <cimcore/CIMAlarm.h>
#include <cimcore/CIMIpConnection.h>
#include <cimcore/CIMThreadPool.h>

namespace CIM {

// A connection on the loop of one TCCIMTask, with connect and read time-outs.
//
// States:
//   closed        socket not open (fresh, after a failed or timed-out Connect)
//   connecting    an asynchronous connect is pending; the caller waits in
//                 Connect on a future that the connect handler fulfils
//   connected     t_connected true
//   disconnected  after Disconnect; the object may be connected again
//
// A connect time-out cancels the socket's pending operations and waits up to
// 3 more seconds for the cancelled handler; the handler holds the promise
// only weakly, so one that comes later still records the truth in
// t_connected but tells nobody. A read time-out is a one-shot alarm per read
// whose observer is this connection: its expiry cancels the socket's pending
// operations, so the read completes with error 125 (operation aborted) and
// whatever bytes came. Disconnect and the alarm's forwarding of an expiry
// both take the observer mutex, so a disconnect never overlaps it.
//
// Reads overlap, and so do their alarms: every alarm whose stop has not yet
// been carried out is kept in a list. A read's handler stops its own alarm
// and drops it from the list behind that stop on the strand; Disconnect stops
// every alarm in the list, and the destructor waits for those stops, so no
// expiry calls into a connection that is gone, whatever order reads end in.
//
// Threads: Connect, SendData, ReadData and Disconnect come from the owner's
// thread; the connect and read handlers, the alarm and the completion
// callbacks run on the task's thread. Connect must not be called on the
// task's thread (it waits for it).
//
// Life: destroy the connection either after the task has been joined, or
// from a thread other than the task's while the task still runs; in the
// latter case the destructor waits until the loop has let go of it.
template <typename Protocol>
class CIM_EXPORT TCCIMIpConnection : public TICIMIpConnection, private TICIMAlarmObserverSafe {
public:
    explicit TCCIMIpConnection(boost::shared_ptr<TCCIMTask> task);
    ~TCCIMIpConnection() override;
    TCCIMIpConnection(const TCCIMIpConnection&) = delete;
    TCCIMIpConnection& operator=(const TCCIMIpConnection&) = delete;

    bool Connect(const UniCastDescriptor& descriptor, unsigned char timeoutSeconds) override;
    // Only UDP receives multicast; here it refuses and changes nothing.
    bool ConnectMulticast(const MultiCastDescriptor& descriptor) override;
    void Disconnect() override;
    void SendData(const std::vector<uint8_t>& data, TCIMIpDataCallback callback) override;
    void ReadData(std::vector<uint8_t>& data, boost::optional<uint16_t> timeoutMs,
                  TCIMIpDataCallback callback) override;
    uint16_t GetSourcePort() override;
    bool IsConnected() override;

protected:
    using Socket = typename Protocol::socket;

    // Sends the whole buffer in one call; returns what the send accepted.
    virtual std::size_t t_SocketSynchronousWrite(const std::vector<uint8_t>& data,
                                                 boost::system::error_code& error) = 0;
    // Starts one receive of at most data.size() bytes and returns at once.
    virtual void t_SocketAsynchronousRead(std::vector<uint8_t>& data, TCIMIpDataCallback callback);
    virtual Protocol t_CreateProtocol(bool ipv6) = 0;
    void t_LockAlarmObserverSafe() override;
    void t_UnlockAlarmObserverSafe() override;

    // For the destructors of the transports, after their Disconnect: waits
    // until the loop holds nothing of this connection any more (see the
    // definition for when it cannot). Done before this template's destructor
    // starts, an expiry of the read alarm never meets a half-destroyed object.
    void m_WaitForLoop();

    boost::shared_ptr<TCCIMTask> m_task;
    std::atomic<bool> t_connected;
    Socket m_socket;

private:
    using ConnectPromise = std::promise<boost::system::error_code>;

    // The steps of Connect, in its order. The two starts begin an
    // asynchronous connect when a time-out is given; by address without one
    // the connect is complete and m_StartConnectByAddress returns true.
    void m_StartConnectByName(const UniCastDescriptor& descriptor, unsigned char timeoutSeconds,
                              const std::weak_ptr<ConnectPromise>& weakPromise);
    bool m_StartConnectByAddress(const UniCastDescriptor& descriptor, unsigned char timeoutSeconds,
                                 const std::weak_ptr<ConnectPromise>& weakPromise);
    bool m_AwaitConnect(std::future<boost::system::error_code>& future,
                        unsigned char timeoutSeconds);
    bool m_SetSocketOptions(const UniCastDescriptor& descriptor);
    void m_OnConnect(const std::weak_ptr<ConnectPromise>& promise,
                     const boost::system::error_code& error);
    void m_OnReadTimeoutCb();

    // Alarms of reads whose stop may not have been carried out yet. Shared
    // with the handlers that drop entries, which may run after the
    // connection has gone.
    struct TSReadAlarms {
        std::mutex mutex;
        std::vector<boost::shared_ptr<TCCIMAlarm>> alarms;  // guarded by mutex
    };

    // One pending read: what its completion needs, in one recycled block.
    // The completion holds only a pointer to it, so the callback that carries
    // it through t_SocketAsynchronousRead copies without allocating.
    struct TSRead {
        TSRead(TCCIMIpConnection* owner, boost::shared_ptr<TCCIMAlarm> readAlarm,
               TCIMIpDataCallback readCallback, std::shared_ptr<TSReadAlarms> alarmList)
            : connection(owner),
              alarm(std::move(readAlarm)),
              callback(std::move(readCallback)),
              readAlarms(std::move(alarmList)) {}
        TCCIMIpConnection* connection;
        boost::shared_ptr<TCCIMAlarm> alarm;  // empty without a time-out
        TCIMIpDataCallback callback;
        std::shared_ptr<TSReadAlarms> readAlarms;
    };
    struct TSReadCompletion {
        void operator()(const boost::system::error_code& error, std::size_t transferred) const;
        std::shared_ptr<TSRead> m_read;
    };
    void m_StopReadAlarms();
    std::vector<boost::shared_ptr<TCCIMAlarm>> m_PendingReadAlarms() const;

    std::mutex m_observerMutex;
    boost::shared_ptr<TCCIMAlarm> m_alarm;  // owner's thread only
    const std::shared_ptr<TSReadAlarms> m_readAlarms;
};

}  // namespace CIM

#endif
