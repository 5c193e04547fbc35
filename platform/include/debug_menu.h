/* The platform's debug-menu library: switches a log tag's output on or off. */
#ifndef CIMCORE_PLATFORM_DEBUG_MENU_H
#define CIMCORE_PLATFORM_DEBUG_MENU_H

#ifdef __cplusplus
extern "C" {
#endif

/* Both return 0 on success and -1 on failure (null or empty tag, refusal). */
int startdlogtagbydefault(const char* tag);
int stopdlogtagbydefault(const char* tag);

#ifdef __cplusplus
}
#endif

#endif
