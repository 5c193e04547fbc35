#include <cimcore/internal/lsc/Thread.h>

#include "LscTestSupport.h"

#include <tuple>

#include <sys/prctl.h>
#include <sys/resource.h>

namespace cimtest {
namespace {

using namespace std::chrono_literals;
using std::chrono::duration_cast;
using std::chrono::milliseconds;

TEST(SemaphoreTest, TryZeroWaitsTimedTryEndsAndAnOvertakenTryWaitsAgain) {
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    auto waiter = std::async(std::launch::async, [&semaphore] { return semaphore.Try(0); });
    EXPECT_EQ(waiter.wait_for(50ms), std::future_status::timeout);
    semaphore.Give();
    EXPECT_TRUE(waiter.get());
    semaphore.Give();
    AssertRecorder recorder;  // a second Create is refused and keeps the semaphore and its unit
    EXPECT_FALSE(semaphore.Create(5));
    EXPECT_EQ(recorder.Expressions(), std::vector<std::string>{"FlagCreate() == false"});
    EXPECT_TRUE(semaphore.Poll());
    EXPECT_FALSE(semaphore.Poll());

    // The give wakes a timed waiter, but this thread takes the unit back at
    // once; the waiter usually loses that race. When it wins the attempt
    // proves nothing and is repeated.
    bool overtaken = false;
    for (int attempt = 0; attempt < 20 && !overtaken; ++attempt) {
        auto timed = std::async(std::launch::async, [&semaphore] {
            const auto begin = Clock::now();
            const bool result = semaphore.Try(200);
            return std::make_tuple(begin, result, Clock::now());
        });
        std::this_thread::sleep_for(80ms);  // the give arrives mid-wait
        const auto giveTime = Clock::now();
        semaphore.Give();
        overtaken = semaphore.Poll();
        const auto [begin, taken, end] = timed.get();
        const auto afterGive = duration_cast<milliseconds>(end - giveTime);
        ASSERT_LT(begin, giveTime);
        EXPECT_NE(taken, overtaken);
        if (overtaken) {
            EXPECT_GE(afterGive.count(), 195)
                << "without the restart it ends 120 ms after the give";
        }
        EXPECT_LT(afterGive.count(), Scaled(1000ms).count());
    }
    EXPECT_TRUE(overtaken) << "the waiter won every race; nothing was shown";
    semaphore.Destroy();
}

// Priority 2 is nice 10; a priority outside 0 to 2 is refused.
TEST(ThreadTest, RunsNamedWithItsPriorityAndCannotDestroyItself) {
    LogCapture log;
    AssertRecorder recorder;
    struct : TCThread {
        int t_Main() override {
            prctl(PR_GET_NAME, kernelName, 0, 0, 0);
            destroyedItself = Destroy();
            refused.set_value();
            release.get_future().wait();
            return 0;
        }
        char kernelName[17] = {};
        bool destroyedItself = true;
        std::promise<void> refused, release;
    } thread;
    ASSERT_TRUE(thread.Create("a-name-of-20-chars!!", 256 * 1024));
    EXPECT_TRUE(thread.SetPriority(2));  // waits for the kernel id itself
    EXPECT_FALSE(thread.SetPriority(3));
    EXPECT_EQ(getpriority(PRIO_PROCESS, id_t(thread.Tid())), 10);
    thread.refused.get_future().wait();
    thread.release.set_value();
    EXPECT_FALSE(thread.destroyedItself);
    EXPECT_EQ(recorder.Expressions(), std::vector<std::string>{"TCThreadSelf::Id() != Id()"});
    // Repository-relative, without extension, whatever the build machine.
    EXPECT_EQ(recorder.Paths(), std::vector<std::string>{"src/lsc/Thread"});
    EXPECT_EQ(log.Count("> Assert Error : Current Thread can't destroy itself"), 1u);
    EXPECT_STREQ(thread.kernelName, "a-name-of-20-ch");
    EXPECT_TRUE(thread.Destroy()) << "the refused Destroy left the thread created";
}

}  // namespace
}  // namespace cimtest
