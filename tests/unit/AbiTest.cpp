// The binary interface that the stack's other libraries are compiled against:
// the order of every class's virtual operations and the records' layouts.
#include <cimcore/cimcore.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

namespace {

// The vtable slot that a pointer to a virtual member function names, or -1
// for a non-virtual one. The Itanium ABI marks a virtual one by an odd
// pointer (1 + byte offset); the ARM ABI keeps the offset as it is and moves
// the mark into the low bit of the this-adjustment.
template <typename MemberFunction>
int Slot(MemberFunction function) {
    static_assert(sizeof(function) == 2 * sizeof(void*), "pointer and adjustment");
    std::uintptr_t raw[2];  // the pointer, then the this-adjustment
    std::memcpy(raw, &function, sizeof raw);
#if defined(__arm__) || defined(__aarch64__)
    return (raw[1] & 1) != 0 ? static_cast<int>(raw[0] / sizeof(void*)) : -1;
#else
    return (raw[0] & 1) != 0 ? static_cast<int>((raw[0] - 1) / sizeof(void*)) : -1;
#endif
}

// One virtual more than Base: its slot is the number of slots Base has, so a
// virtual added or a destructor missing shows even where nothing else can be
// named. Never instantiated.
template <typename Base>
struct Appended : Base {
    virtual void ProbeAppended() = 0;
};
template <typename Base>
int SlotCount() {
    return Slot(&Appended<Base>::ProbeAppended);
}

// The slots of `functions`, then the number of slots of Class: one list, so
// that a failure shows the whole order.
template <typename Class, typename... Functions>
std::vector<int> Slots(Functions... functions) {
    return {Slot(functions)..., SlotCount<Class>()};
}
using Seq = std::vector<int>;

// The slot lists of the classes with protected hooks, which only a derived
// class may name.
template <typename Thread>
struct ThreadSlots : Thread {
    static Seq Get() { return Slots<Thread>(&ThreadSlots::t_Main, &Thread::Destroy); }
};
struct HandlerSlots : TCHandler {
    static Seq Get() { return Slots<TCHandler>(&HandlerSlots::t_OnEvent, &TCHandler::Destroy); }
};
struct TaskSlots : TCTask {
    static Seq Get() {
        return Slots<TCTask>(&TaskSlots::t_Main, &TCTask::Destroy, &TaskSlots::t_Create,
                             &TaskSlots::t_Idle, &TaskSlots::t_Destroy, &TaskSlots::t_OnEvent,
                             &TaskSlots::t_OnExit, &TaskSlots::t_OnUser, &TaskSlots::t_OnClearQueue,
                             &TaskSlots::ExecuteEvent);
    }
};
struct AlarmSlots : TCAlarm {
    static Seq Get() {
        return Slots<TCAlarm>(&TCAlarm::Destroy, &AlarmSlots::t_OnEvent, &AlarmSlots::t_OnAlarm);
    }
};
struct ObserverSafeSlots : CIM::TICIMAlarmObserverSafe {
    static Seq Get() {
        return Slots<CIM::TICIMAlarmObserverSafe>(&ObserverSafeSlots::t_LockAlarmObserverSafe,
                                                  &ObserverSafeSlots::t_UnlockAlarmObserverSafe);
    }
};
template <typename Connection>
struct ConnectionSlots : Connection {
    using Self = ConnectionSlots;
    static Seq Get() {
        return Slots<Connection>(&Connection::Connect, &Connection::IsConnected,
                                 &Self::t_SocketSynchronousWrite, &Self::t_SocketAsynchronousRead,
                                 &Self::t_CreateProtocol, &Self::t_LockAlarmObserverSafe,
                                 &Self::t_UnlockAlarmObserverSafe);
    }
};

// A virtual destructor takes two slots (complete and deleting).
TEST(Abi, LegacyRuntimeVirtualsAreInTheirSlots) {
    // Destructor, deleting destructor, Destroy.
    EXPECT_EQ(Slots<TCSemaphore>(&TCSemaphore::Destroy), Seq({2, 3}));
    EXPECT_EQ(Slots<TCMutex>(&TCMutex::Destroy), Seq({2, 3}));
    EXPECT_EQ(Slots<TCQueue>(&TCQueue::Destroy), Seq({2, 3}));

    // t_Main, the two destructors, Destroy.
    EXPECT_EQ(ThreadSlots<TCThread>::Get(), Seq({0, 3, 4}));
    EXPECT_EQ(ThreadSlots<TCEventNotifyThread>::Get(), Seq({0, 3, 4}));

    // The two destructors, t_OnEvent, Destroy.
    EXPECT_EQ(HandlerSlots::Get(), Seq({2, 3, 4}));

    // The thread's four, then the task's own; t_OnEvent overrides the
    // handler's and so takes a slot of its own here too.
    EXPECT_EQ(TaskSlots::Get(), Seq({0, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));

    // t_Main (private), the destructors, Destroy, t_OnEvent, t_OnAlarm.
    EXPECT_EQ(AlarmSlots::Get(), Seq({3, 4, 5, 6}));
    EXPECT_EQ(SlotCount<TCStateAlarm>(), 6);
    EXPECT_EQ(SlotCount<TCRWLock>(), 2);
}

TEST(Abi, ModernRuntimeVirtualsAreInTheirSlots) {
    // Only the two destructors.
    EXPECT_EQ(SlotCount<CIM::TCThreadPool>(), 2);
    EXPECT_EQ(SlotCount<CIM::TCCIMTask>(), 2);
    EXPECT_EQ(SlotCount<CIM::TCCICoreTraceLock>(), 2);
    EXPECT_EQ(SlotCount<CIM::ApplicationLauncher>(), 2);

    EXPECT_EQ(Slots<CIM::TICIMAlarmObserver>(&CIM::TICIMAlarmObserver::OnTimer), Seq({2, 3}));
    EXPECT_EQ(ObserverSafeSlots::Get(), Seq({3, 4, 5}));

    using Interface = CIM::TICIMIpConnection;
    EXPECT_EQ(Slots<Interface>(&Interface::Connect, &Interface::ConnectMulticast,
                               &Interface::Disconnect, &Interface::SendData, &Interface::ReadData,
                               &Interface::GetSourcePort, &Interface::IsConnected),
              Seq({2, 3, 4, 5, 6, 7, 8, 9}));

    // After the interface's nine: the transport hooks, then the observer's
    // lock and unlock, which override the private base's.
    const Seq connection({2, 8, 9, 10, 11, 12, 13, 14});
    EXPECT_EQ(ConnectionSlots<CIM::TCCIMIpConnectionTcp>::Get(), connection);
    EXPECT_EQ(ConnectionSlots<CIM::TCCIMIpConnectionUdp>::Get(), connection);
}

// Classes without virtual operations stay so: a vtable pointer would shift
// every member.
static_assert(!std::is_polymorphic<CIM::TCCIMAlarm>::value &&
                  !std::is_polymorphic<CIM::TCCIMSemaphore>::value &&
                  !std::is_polymorphic<CIM::TCAutoTimeoutDebug>::value &&
                  !std::is_polymorphic<CIM::TCCIMDebugLog>::value &&
                  !std::is_polymorphic<TCSyncDet>::value && !std::is_polymorphic<TSEvent>::value,
              "no vtable where none is listed");

// Records and widths; the word layouts of TSEvent and of the sync table's
// record are checked in their headers, on every 32-bit build of a user.
static_assert(sizeof(CIM::ECIMLogLevel) == 1, "a log level is one byte");
static_assert(sizeof(CIM::EDestinationType) == 4 && sizeof(CIM::EProtocolType) == 4 &&
                  sizeof(CIM::EAlarmType) == 4,
              "the enumerations are 32-bit");
static_assert(TCSyncDet::MAX_SYNC_TASKS == 64, "the sync table has 64 entries");
static_assert(std::is_same<decltype(gTimeOffset), int64_t>::value, "gTimeOffset is 64 bits");
using SyncInfo = TCSyncDet::PTSyncDetInfo;
static_assert(sizeof(SyncInfo::bValid) == 1 && sizeof(SyncInfo::iCallerTid) == 4 &&
                  std::is_signed<decltype(SyncInfo::iCallerTid)>::value &&
                  std::is_unsigned<decltype(SyncInfo::ulTick)>::value &&
                  std::is_unsigned<decltype(SyncInfo::ulCallerId)>::value &&
                  std::is_unsigned<decltype(SyncInfo::ulReceiverId)>::value &&
                  std::is_unsigned<decltype(SyncInfo::ulReserved)>::value &&
                  sizeof(SyncInfo::szCallerName) == 16 && sizeof(SyncInfo::szReceiverName) == 16,
              "the sync table's record fields");
static_assert(sizeof(void*) != 4 || (sizeof(SyncInfo::ulTick) == 4 && sizeof(TSEvent) == 44 &&
                                     sizeof(long) == 4 && sizeof(pthread_t) == 4),
              "32-bit target: the words and the long results are 32 bits");

}  // namespace
