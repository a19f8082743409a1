/* VdoFrame: one picture of a stream, with its size, sequence number and time stamp.
 * Host stand-in with the camera SDK's names and semantics. A GObject; see vdo-buffer.h for
 * ownership. */
#ifndef VDO_FRAME_H
#define VDO_FRAME_H

#include <glib-object.h>

G_BEGIN_DECLS

#define VDO_TYPE_FRAME (vdo_frame_get_type())
G_DECLARE_FINAL_TYPE(VdoFrame, vdo_frame, VDO, FRAME, GObject)

/* Bytes of picture data: width * height * 3 / 2 for an NV12 stream. */
gsize vdo_frame_get_size(VdoFrame* self);
/* Counts the frames of the stream from 0; gaps show frames that the application missed. */
guint vdo_frame_get_sequence_nbr(VdoFrame* self);
/* When the frame was made, in microseconds of the monotonic clock. */
guint64 vdo_frame_get_timestamp(VdoFrame* self);

G_END_DECLS

#endif /* VDO_FRAME_H */
