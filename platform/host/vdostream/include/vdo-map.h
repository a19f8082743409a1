/* VdoMap: a dictionary of named, typed values (stream settings, stream information, filters).
 * Host stand-in with the camera SDK's names and semantics.
 *
 * A GObject, released with g_object_unref. Numeric getters convert between the numeric types
 * (a double read as guint32 is truncated and saturated; a negative integer reads as 0), and
 * return the default for a missing entry or one of another kind. Not thread-safe: one thread at
 * a time uses a map. */
#ifndef VDO_MAP_H
#define VDO_MAP_H

#include <glib-object.h>

G_BEGIN_DECLS

#define VDO_TYPE_MAP (vdo_map_get_type())
G_DECLARE_FINAL_TYPE(VdoMap, vdo_map, VDO, MAP, GObject)

VdoMap* vdo_map_new(void);

gboolean vdo_map_contains(const VdoMap* self, const gchar* name);
/* Removes the entry of that name, if any. */
void vdo_map_remove(VdoMap* self, const gchar* name);
/* True when the map has no entry. */
gboolean vdo_map_empty(const VdoMap* self);
/* Number of entries. */
gsize vdo_map_get_size(const VdoMap* self);

void vdo_map_set_uint32(VdoMap* self, const gchar* name, guint32 value);
guint32 vdo_map_get_uint32(const VdoMap* self, const gchar* name, guint32 def);
void vdo_map_set_int32(VdoMap* self, const gchar* name, gint32 value);
gint32 vdo_map_get_int32(const VdoMap* self, const gchar* name, gint32 def);
void vdo_map_set_double(VdoMap* self, const gchar* name, gdouble value);
gdouble vdo_map_get_double(const VdoMap* self, const gchar* name, gdouble def);
void vdo_map_set_boolean(VdoMap* self, const gchar* name, gboolean value);
gboolean vdo_map_get_boolean(const VdoMap* self, const gchar* name, gboolean def);
/* The map keeps its own copy of value. */
void vdo_map_set_string(VdoMap* self, const gchar* name, const gchar* value);
/* The text stays owned by the map, valid until the entry changes. When size is not NULL it
 * receives the text's length in bytes, terminating NUL included (0 when def is returned). */
const gchar* vdo_map_get_string(const VdoMap* self, const gchar* name, gsize* size,
                                const gchar* def);

G_END_DECLS

#endif /* VDO_MAP_H */
