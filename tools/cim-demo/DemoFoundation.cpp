// Time values, the tick clock, a scope timer and a traced lock.
#include "Demo.h"

#include <cimcore/CICoreTraceLock.h>
#include <cimcore/CIMTime.h>

#include <mutex>
#include <thread>

namespace cimdemo {
namespace {

bool RunFoundation(Context& context) {
    bool ok = true;

    const CIM::TSCIMTime epoch;
    Say("TSCIMTime()                       -> %s, %ld s since 1970", CIM::ToString(epoch).c_str(),
        epoch.SecondsSinceEpoch());
    const CIM::TSCIMTime before(-1L);
    Say("TSCIMTime(-1)                     -> %s", CIM::ToString(before).c_str());
    const CIM::TSCIMTime leap(CIM::TSDateTimeComponents{2023, 2, 29, 0, 0, 0});
    Say("components 2023-2-29 0:0:0        -> %s (normalised through mktime)",
        CIM::ToString(leap).c_str());
    const CIM::TSCIMTime sample(CIM::TSDateTimeComponents{2024, 3, 5, 7, 4, 9});
    Say("components 2024-3-5 7:4:9         -> %s, %ld s since 1970", CIM::ToString(sample).c_str(),
        sample.SecondsSinceEpoch());
    tm bad = {};
    bad.tm_year = 123;
    bad.tm_mon = 1;
    bad.tm_mday = 29;
    try {
        const CIM::TSCIMTime invalid(bad);
        Say("tm 2023-02-29 was accepted: unexpected");
        ok = false;
    } catch (const std::exception& error) {
        Say("tm 2023-02-29 taken as it is      -> throws \"%s\"", error.what());
    }

    const unsigned long t0 = CIM::TCCIMTime::Tick();
    CIM::TCCIMTime::Sleep(50);
    const unsigned long t1 = CIM::TCCIMTime::Tick();
    Say("Tick() across Sleep(50)           -> %lu .. %lu, %lu ms (clock steps of 10 ms)", t0, t1,
        CIM::TickDiff(t1, t0));

    size_t mark = LogMark(context);
    {
        CIM::TCAutoTimeoutDebug timer("demo block", 20);
        CIM::TCCIMTime::Sleep(60);
    }
    { CIM::TCAutoTimeoutDebug timer("quick block", 1000); }
    Say("a scope timer (threshold 20 ms) around 60 ms of work logs; one within 1000 ms "
        "stays silent:");
    ShowLog(context, mark, "TCAutoTimeoutDebug");

    mark = LogMark(context);
    std::recursive_mutex mutex;
    {
        CIM::TCCICoreTraceLock lock(mutex, __LINE__, "DemoFoundation.cpp", "RunFoundation");
        CIM::TCCIMTime::Sleep(350);
    }
    Say("a traced lock held 350 ms (limit 300 ms) logs:");
    ShowLog(context, mark, "AUTOLOCK ERROR");
    return ok;
}

const SectionRegistrar kRegistrar(10, "Time values, tick clock, scope timer, traced lock",
                                  RunFoundation);

}  // namespace
}  // namespace cimdemo
