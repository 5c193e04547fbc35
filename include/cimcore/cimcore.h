// Everything cimcore offers, in one include.
//
// The legacy runtime's headers are public API, installed and supported as
// <cimcore/internal/lsc/...>: the stack's other libraries include them by
// that path. Nothing else under cimcore/internal/ is meant for direct use.
#ifndef CIMCORE_CIMCORE_H
#define CIMCORE_CIMCORE_H

#include <cimcore/CICoreTraceLock.h>
#include <cimcore/CIMDebug.h>
#include <cimcore/CIMTime.h>
#include <cimcore/CIMDebugLog.h>
#include <cimcore/ApplicationLauncher.h>
#include <cimcore/CIMThreadDebug.h>
#include <cimcore/CIMThreadPool.h>
#include <cimcore/CIMSemaphore.h>
#include <cimcore/CIMAlarm.h>
#include <cimcore/CIMIpConnectionTcp.h>
#include <cimcore/CIMIpConnectionUdp.h>
#include <cimcore/CIMWatchdog.h>
#include <cimcore/internal/lsc/Thread.h>
#include <cimcore/internal/lsc/Queue.h>
#include <cimcore/internal/lsc/Task.h>
#include <cimcore/internal/lsc/Sync.h>
#include <cimcore/internal/lsc/Alarm.h>
#include <cimcore/internal/lsc/RWLock.h>
#include <cimcore/internal/lsc/EventNotifyThread.h>

#endif
