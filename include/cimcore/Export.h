// What the shared library exports. It is built with hidden visibility, so a
// class, function or variable of the interface carries CIM_EXPORT and
// everything else stays inside.
#ifndef CIMCORE_EXPORT_H
#define CIMCORE_EXPORT_H

#define CIM_EXPORT __attribute__((visibility("default")))

#endif
