/* VdoBuffer: the memory of one frame of a stream. Host stand-in with the camera SDK's names and
 * semantics.
 *
 * A buffer from vdo_stream_get_buffer belongs to the caller until it is given back, either with
 * vdo_stream_buffer_unref or by dropping the reference (g_object_unref, g_autoptr). The stream
 * then reuses it for a later frame: its data is valid only while the caller holds it. */
#ifndef VDO_BUFFER_H
#define VDO_BUFFER_H

#include "vdo-frame.h"

G_BEGIN_DECLS

typedef VdoFrame VdoBuffer;
G_DEFINE_AUTOPTR_CLEANUP_FUNC(VdoBuffer, g_object_unref)

/* The frame's bytes. */
gpointer vdo_buffer_get_data(VdoBuffer* self);
/* The frame of the buffer: the same object, no new reference. */
VdoFrame* vdo_buffer_get_frame(VdoBuffer* self);
/* The buffer's number in its stream's ring, from 0. */
guint vdo_buffer_get_id(VdoBuffer* self);
/* Bytes that the buffer can hold. */
gsize vdo_buffer_get_capacity(VdoBuffer* self);

G_END_DECLS

#endif /* VDO_BUFFER_H */
