/* VdoStream: one video stream of the camera. Host stand-in with the camera SDK's names and
 * semantics, fed by the simulated camera (built-in generator, video file or folder of images).
 *
 * Settings of vdo_stream_new (all optional):
 *   "channel"      guint32  a channel of the camera description; default the first one
 *   "format"       guint32  VDO_FORMAT_YUV (NV12), the only format of the host; default YUV
 *   "width"        guint32  even; default the channel's largest resolution
 *   "height"       guint32  even; likewise
 *   "resolution"   string   "<width>x<height>", in place of "width" and "height"
 *   "rotation"     guint32  0, 90, 180 or 270; default root.Image.I0.Appearance.Rotation
 *   "framerate"    double   frames per second, 0.001 to 1000; default video.framerate of the
 *                           description, 0 delivers frames as fast as they are asked for
 *   "buffer.count" guint32  buffers in the stream's ring, 1 to 32; default 3
 *   "image.fit"    string   "crop" (default) or "scale": how a video file or an image of
 *                           another aspect ratio is fitted to width by height
 *
 * "width" and "height" describe the picture before rotation; it must fit the channel's largest
 * resolution, in either orientation. "rotation" turns the picture clockwise, so that at 90 and
 * 270 a frame is "height" pixels wide and "width" pixels tall.
 *
 * A stream is a GObject, released with g_object_unref; it stops by itself then. Several streams
 * may be open at once, each with its own ring of buffers. Calls on one stream may come from
 * several threads; vdo_stream_get_buffer blocks until the next frame is due. */
#ifndef VDO_STREAM_H
#define VDO_STREAM_H

#include "vdo-buffer.h"
#include "vdo-error.h"
#include "vdo-map.h"
#include "vdo-types.h"

#include <glib-object.h>

G_BEGIN_DECLS

#define VDO_TYPE_STREAM (vdo_stream_get_type())
G_DECLARE_FINAL_TYPE(VdoStream, vdo_stream, VDO, STREAM, GObject)

/* Called for each buffer of the stream's ring when the buffer is finally released. */
typedef void (*VdoBufferFinalizer)(VdoBuffer* self);

/* A new stream, not yet started; settings may be NULL, fin may be NULL. NULL on failure. */
VdoStream* vdo_stream_new(VdoMap* settings, VdoBufferFinalizer fin, GError** error);
/* Attaches the application to the stream; intent may be NULL. */
gboolean vdo_stream_attach(VdoStream* self, VdoMap* intent, GError** error);
/* The settings in force, as a new map: the keys above ("framerate" as a double). */
VdoMap* vdo_stream_get_settings(VdoStream* self, GError** error);
/* The frame layout, as a new map: "format", "width", "height" and "pitch" (of the rotated
 * picture), "rotation", "framerate", "buffer.count". */
VdoMap* vdo_stream_get_info(VdoStream* self, GError** error);
gboolean vdo_stream_start(VdoStream* self, GError** error);
/* Stops the stream; a vdo_stream_get_buffer that waits returns with VDO_ERROR_CLOSED. */
void vdo_stream_stop(VdoStream* self);
/* The next frame, blocking until it is due. Fails with VDO_ERROR_CLOSED on a stream that is not
 * running and with VDO_ERROR_NO_BUFFER_SPACE while the caller holds every buffer of the ring. */
VdoBuffer* vdo_stream_get_buffer(VdoStream* self, GError** error);
/* Gives the buffer back to its stream and sets *buffer to NULL. On failure *buffer stays. */
gboolean vdo_stream_buffer_unref(VdoStream* self, VdoBuffer** buffer, GError** error);

G_END_DECLS

#endif /* VDO_STREAM_H */
