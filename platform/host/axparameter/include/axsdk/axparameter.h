/* The camera's parameter service. Host stand-in with the camera SDK's names and semantics,
 * answering from the camera description's "root." entries.
 *
 * Names may be given fully qualified ("root.Brand.ProdShortName"), without "root."
 * ("Brand.ProdShortName"), or, for the application's own parameters, as a bare name under
 * "root.<app_name>.". Changes made with ax_parameter_set and ax_parameter_add are seen by every
 * handle of the process until another camera description is loaded. Thread-safe. */
#ifndef AXPARAMETER_H
#define AXPARAMETER_H

#include <glib.h>

G_BEGIN_DECLS

typedef struct _AXParameter AXParameter;

typedef enum {
    AX_PARAMETER_INVALID_ARG_ERROR = 0,
    AX_PARAMETER_FILE_FD_ERROR = 1,
    AX_PARAMETER_FILE_LOCK_ERROR = 2,
    AX_PARAMETER_FILE_OPEN_ERROR = 3,
    AX_PARAMETER_FILE_FORMAT_ERROR = 4,
    AX_PARAMETER_FILE_CREATE_ERROR = 5,
    AX_PARAMETER_FILE_WRITE_ERROR = 6,
    AX_PARAMETER_FILE_LINK_ERROR = 7,
    AX_PARAMETER_PARAM_LIST_ERROR = 8,
    AX_PARAMETER_PARAM_GET_ERROR = 9,
    AX_PARAMETER_PARAM_PATH_ERROR = 10,
    AX_PARAMETER_PARAM_SYNC_ERROR = 11,
    AX_PARAMETER_PARAM_EXIST_ERROR = 12,
    AX_PARAMETER_PARAM_ADDED_ERROR = 13,
    AX_PARAMETER_PARAM_READ_GROUP_ERROR = 14,
    AX_PARAMETER_PARAM_SET_ERROR = 15,
    AX_PARAMETER_DBUS_SETUP_ERROR = 16,
    AX_PARAMETER_FILE_UNLINK_ERROR = 17,
    AX_PARAMETER_FILE_PATH_ERROR = 18,
    AX_PARAMETER_FILE_SYNC_ERROR = 19,
    AX_PARAMETER_FILE_RENAME_ERROR = 20
} AXParameterErrorCode;

GQuark ax_parameter_error_quark(void);

/* A handle for the application app_name; NULL on failure. Released with ax_parameter_free. */
AXParameter* ax_parameter_new(const gchar* app_name, GError** error);
/* Accepts NULL. */
void ax_parameter_free(AXParameter* parameter);

/* On success *value is a new text that the caller releases with g_free. */
gboolean ax_parameter_get(AXParameter* parameter, const gchar* name, gchar** value, GError** error);
/* Changes an existing parameter. do_sync is accepted and has no further effect on the host. */
gboolean ax_parameter_set(AXParameter* parameter, const gchar* name, const gchar* value,
                          gboolean do_sync, GError** error);
/* Adds the application parameter root.<app_name>.<name>; type (for example "string") is kept
 * for the record only. Fails with AX_PARAMETER_PARAM_ADDED_ERROR when it exists. */
gboolean ax_parameter_add(AXParameter* parameter, const gchar* name, const gchar* initial_value,
                          const gchar* type, GError** error);
/* Removes an application parameter added with ax_parameter_add. */
gboolean ax_parameter_remove(AXParameter* parameter, const gchar* name, GError** error);
/* Fully qualified names of every parameter, in order: a list of new texts, released with
 * g_list_free_full(list, g_free). */
GList* ax_parameter_list(AXParameter* parameter, GError** error);

G_END_DECLS

#endif /* AXPARAMETER_H */
