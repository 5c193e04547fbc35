/* Lets a caller skip building a log line that the platform log would drop. */
#ifndef CIMCORE_PLATFORM_DLOG_SWITCH_H
#define CIMCORE_PLATFORM_DLOG_SWITCH_H

#ifdef __cplusplus
extern "C" {
#endif

/* Returns a word that is nonzero while a line under `tag` may be written and
   zero while __dlog_print would drop it (the tag switched off, or the log
   going nowhere). The word lives as long as the process and follows every
   later switch of the tag or of the destination; read it with a relaxed
   atomic load, once per line, before formatting anything. Never null.

   A platform whose __dlog_print filters by itself (the device's) answers
   with a word that is always nonzero: there every line goes to __dlog_print
   and its own filter decides. */
const int* cim_dlog_tag_switch(const char* tag);

#ifdef __cplusplus
}
#endif

#endif
