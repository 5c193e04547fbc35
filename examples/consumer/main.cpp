// Builds against the installed cimcore and uses a little of each runtime,
// from a thread of its own.
#include <cimcore/cimcore.h>

#include <boost/asio/post.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/thread.hpp>

#include <cstdio>

int main() {
    const CIM::TSCIMTime time(CIM::TSDateTimeComponents{2024, 3, 5, 7, 4, 9});
    const std::string text = CIM::ToString(time);
    std::printf("cimcore consumer: %s, tick %lu\n", text.c_str(), CIM::TCCIMTime::Tick());

    // A legacy semaphore given from the consumer's own Boost thread.
    TCSemaphore given;
    if (!given.Create(0)) {
        return 1;
    }
    boost::thread giver([&given] { given.Give(); });
    const bool legacyOk = given.Try(5000);
    giver.join();
    given.Destroy();

    // A handler on a modern task, handing back through its semaphore.
    CIM::TCCIMSemaphore done(0);
    boost::shared_ptr<CIM::TCCIMTask> task = boost::make_shared<CIM::TCCIMTask>("consumer");
    boost::asio::post(task->GetStrand(), [&done] { done.Give(); });
    done.Take();
    task->Join();

    return text == "[2024-3-5] [7:4:9]" && legacyOk ? 0 : 1;
}
