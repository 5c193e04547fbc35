/* The platform's application-control service: launch requests for other
   applications, identified by an application id, with key-value extra data. */
#ifndef CIMCORE_PLATFORM_APP_CONTROL_H
#define CIMCORE_PLATFORM_APP_CONTROL_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct app_control_s* app_control_h;

typedef enum {
    APP_CONTROL_ERROR_NONE = 0,
    APP_CONTROL_ERROR_INVALID_PARAMETER = -22,
    APP_CONTROL_ERROR_OUT_OF_MEMORY = -12,
    APP_CONTROL_ERROR_APP_NOT_FOUND = -0x01110000 | 0x21,
    APP_CONTROL_ERROR_LAUNCH_REJECTED = -0x01110000 | 0x22
} app_control_error_e;

/* Called with the result of a launch request; unused by this library. */
typedef void (*app_control_reply_cb)(app_control_h request, app_control_h reply, int result,
                                     void* user_data);

int app_control_create(app_control_h* app_control);
int app_control_destroy(app_control_h app_control);
int app_control_set_app_id(app_control_h app_control, const char* app_id);
int app_control_add_extra_data(app_control_h app_control, const char* key, const char* value);
int app_control_send_launch_request(app_control_h app_control, app_control_reply_cb callback,
                                    void* user_data);

#ifdef __cplusplus
}
#endif

#endif
