#include <cimcore/CIMThreadPool.h>

#include <cimcore/CIMThreadDebug.h>
#include <cimcore/internal/CIMLog.h>

#include <boost/asio/post.hpp>

namespace {
constexpr const char* kSourcePath = "src/core/CIMThreadPool";
}  // namespace

namespace CIM {

TCThreadPool::TCThreadPool(const std::string& /*name*/, unsigned int threadCount)
    : m_ioContext(), m_strand(m_ioContext) {
    m_work.emplace(m_ioContext);
    for (unsigned int i = 0; i < threadCount; ++i) {
        boost::thread* worker = m_threads.create_thread([this] { m_ioContext.run(); });
        m_threadIds.push_back(worker->get_id());
    }
}

TCThreadPool::~TCThreadPool() {
    if (m_work) {
        Log::AssertFailed("!m_work", kSourcePath, 57, "~TCThreadPool");
    }
    // The members go in reverse order: the ids, then the workers (detached if
    // never joined), then the guard, the strand and the loop.
}

void TCThreadPool::Join() {
    Log::Info("CIMThreadPool.cpp", "Join", 64, "%s", "");
    if (m_work) {
        m_work.reset();
    }
    m_threads.join_all();
}

std::vector<boost::thread::id> TCThreadPool::GetThreadIds() const {
    return m_threadIds;
}

boost::asio::io_context& TCThreadPool::GetIoContext() {
    return m_ioContext;
}

boost::asio::io_context::strand& TCThreadPool::GetStrand() {
    return m_strand;
}

TCCIMTask::TCCIMTask(const std::string& name)
    : TCThreadPool(name, 1), m_taskThreadId(GetThreadIds().front()) {
    // Through the strand and before anything a user can post, so the worker
    // is named before it runs any user handler.
    boost::asio::post(GetStrand(), [name] { TCCIMThreadDebug::SetThisThreadName(name); });
}

TCCIMTask::~TCCIMTask() = default;

boost::thread::id TCCIMTask::GetTaskThreadId() const {
    return m_taskThreadId;
}

void TCCIMTask::Join() {
    TCThreadPool::Join();
}

}  // namespace CIM
