/* VdoChannel: a video channel of the camera and the resolutions it offers. Host stand-in with
 * the camera SDK's names and semantics, answering from the camera description ("channels",
 * "channel.<n>.resolutions"). A GObject, released with g_object_unref. */
#ifndef VDO_CHANNEL_H
#define VDO_CHANNEL_H

#include "vdo-error.h"
#include "vdo-map.h"
#include "vdo-types.h"

#include <glib-object.h>

G_BEGIN_DECLS

#define VDO_TYPE_CHANNEL (vdo_channel_get_type())
G_DECLARE_FINAL_TYPE(VdoChannel, vdo_channel, VDO, CHANNEL, GObject)

/* Every channel, as new objects: g_list_free_full(list, g_object_unref). NULL on failure. */
GList* vdo_channel_get_all(GError** error);
/* The channel of that number, or NULL with VDO_ERROR_NOT_FOUND. */
VdoChannel* vdo_channel_get(guint channel_nbr, GError** error);
guint vdo_channel_get_id(VdoChannel* self);
/* The channel's resolutions, largest first; released with g_free. filter may be NULL; it knows
 * "aspect_ratio" (string "<w>:<h>", only resolutions of that ratio) and "select" (string "all",
 * the default, or "minmax", the smallest and the largest). NULL on failure. */
VdoResolutionSet* vdo_channel_get_resolutions(VdoChannel* self, VdoMap* filter, GError** error);

G_END_DECLS

#endif /* VDO_CHANNEL_H */
