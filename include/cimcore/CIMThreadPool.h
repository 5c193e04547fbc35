// Thread pools and one-thread tasks on an asynchronous I/O-event loop.
#ifndef CIMCORE_CIMTHREADPOOL_H
#define CIMCORE_CIMTHREADPOOL_H

#include <cimcore/Export.h>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/io_context_strand.hpp>
#include <boost/optional/optional.hpp>
#include <boost/thread/thread.hpp>

namespace CIM {

// An io_context run by a fixed number of worker threads, started by the
// constructor. A work guard keeps the workers in the loop, even when nothing
// is queued, until Join() releases it.
//
// Life cycle: Running (guard held) -> Draining (Join released the guard; the
// workers finish what is queued or pending) -> Joined -> destroyed. A pool is
// never restarted. Join() must be called, from a thread that is not one of
// the pool's workers, before the pool is destroyed: destroying a pool that
// was never joined is reported as the assertion "!m_work", and its workers
// are then detached rather than joined.
//
// Shutting down, in this order: stop the alarms that run on the pool and Join
// them, then Join the pool, then destroy it. Join() waits until no handler,
// timer or socket operation is left, so a repeating alarm that is still
// running keeps it waiting for ever.
//
// Handlers posted to the pool run in parallel on its workers unless they go
// through a strand. GetThreadIds() reads data fixed by the constructor and
// may be called from any thread.
class CIM_EXPORT TCThreadPool {
public:
    // `name` is not used: the workers of a plain pool stay unnamed. With
    // `threadCount` 0 the pool has no worker and nothing posted to it runs
    // unless an outside thread runs its io_context.
    TCThreadPool(const std::string& name, unsigned int threadCount);
    virtual ~TCThreadPool();
    TCThreadPool(const TCThreadPool&) = delete;
    TCThreadPool& operator=(const TCThreadPool&) = delete;

    // Releases the work guard (only the first call has one to release) and
    // waits for every worker to leave the loop. Called on one of the pool's
    // own workers it throws boost::thread_resource_error ("boost thread:
    // trying joining itself"); with several workers such a call deadlocks
    // instead, since the other workers wait for the calling handler to end.
    void Join();

    // The workers' identifiers, in the order the workers were created.
    std::vector<boost::thread::id> GetThreadIds() const;

    // The loop and the strand that the pool's users (alarms, connections)
    // build on. They live as long as the pool.
    boost::asio::io_context& GetIoContext();
    boost::asio::io_context::strand& GetStrand();

private:
    boost::asio::io_context m_ioContext;
    boost::asio::io_context::strand m_strand;
    boost::optional<boost::asio::io_context::work> m_work;
    boost::thread_group m_threads;
    std::vector<boost::thread::id> m_threadIds;
};

// A pool of exactly one worker, named after the task. Its naming handler is
// posted through the strand by the constructor, so the worker carries the
// name before any handler that a user posts later runs; the constructor does
// not wait for it.
//
// All handlers of the objects built on one task (alarms, connections) run
// one after the other on its thread. Calls that wait for that thread
// (TCCIMAlarm::IsActive, TCCIMAlarm::Join, a connection's Connect) must not
// be made on it. The shut-down order of TCThreadPool applies.
class CIM_EXPORT TCCIMTask : public TCThreadPool {
public:
    explicit TCCIMTask(const std::string& name);
    ~TCCIMTask() override;

    // Compare with boost::this_thread::get_id() to learn whether the caller
    // runs on the task's thread.
    boost::thread::id GetTaskThreadId() const;

    void Join();

private:
    boost::thread::id m_taskThreadId;
};

}  // namespace CIM

#endif
