/* Plain types of the video service: pixel formats, resolutions and resolution sets.
 * Host stand-in with the camera SDK's names and values. */
#ifndef VDO_TYPES_H
#define VDO_TYPES_H

#include <glib.h>

G_BEGIN_DECLS

typedef enum {
    VDO_FORMAT_NONE = -1,
    VDO_FORMAT_H264 = 0,
    VDO_FORMAT_H265 = 1,
    VDO_FORMAT_JPEG = 2,
    VDO_FORMAT_YUV = 3, /* NV12: a Y plane, then interleaved U,V, both at stride width */
    VDO_FORMAT_BAYER = 4,
    VDO_FORMAT_IVS = 5,
    VDO_FORMAT_RAW = 6,
    VDO_FORMAT_RGBA = 7,
    VDO_FORMAT_RGB = 8,
    VDO_FORMAT_PLANAR_RGB = 9
} VdoFormat;

typedef struct {
    guint32 width;
    guint32 height;
} VdoResolution;

/* Released with g_free. */
typedef struct {
    gsize count;
    VdoResolution resolutions[];
} VdoResolutionSet;

G_END_DECLS

#endif /* VDO_TYPES_H */
