// Everything cimcore offers, in one include.
#ifndef CIMCORE_CIMCORE_H
#define CIMCORE_CIMCORE_H

#include <cimcore/CICoreTraceLock.h>
#include <cimcore/CIMDebug.h>
#include <cimcore/CIMTime.h>

#endif
