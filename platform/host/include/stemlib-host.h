/* Host-only controls of the PC stand-ins for the camera's services. Not part of the camera SDK:
 * applications and tests use them to pick a simulated camera and to make chosen calls fail.
 *
 * The camera in effect is read, at the first call into any stand-in, from the file named by the
 * environment variable STEMLIB_HOST_CAMERA, or is the built-in default camera when it is unset.
 * Failures can also be requested with the environment variable STEMLIB_HOST_FAIL, read at the
 * same moment: "call=message;call2=message2".
 *
 * All functions are thread-safe, apart from the environment update of stemlib_host_load_camera. */
#ifndef STEMLIB_HOST_H
#define STEMLIB_HOST_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Loads the camera description at path, or the built-in default camera when path is NULL, in
 * place of the current one. Returns 0 on success; on failure returns -1, keeps the current
 * camera and, when error is not NULL, stores a message that the caller releases with free().
 * On success it also sets STEMLIB_HOST_CAMERA to the file's absolute path (or unsets it), so that
 * child processes such as the host busctl see the same camera; like setenv, that part must not
 * race with other threads reading the environment. */
int stemlib_host_load_camera(const char* path, char** error);

/* Makes every later call of the named function (for example "vdo_stream_get_buffer") fail with
 * message. A NULL message stops the failure. */
void stemlib_host_set_failure(const char* call, const char* message);

/* Like stemlib_host_set_failure, but the first `skip` calls still succeed. */
void stemlib_host_set_failure_after(const char* call, unsigned int skip, const char* message);

/* Stops every requested failure, also those of the description file and STEMLIB_HOST_FAIL. */
void stemlib_host_clear_failures(void);

/* The number of objects of the video service that are alive in the process, by type name:
 * "VdoStream", "VdoMap", "VdoChannel" or "VdoFrame" (a stream's buffers); -1 for any other name.
 * For finding handles that an application never releases. */
long stemlib_host_live_objects(const char* type_name);

/* Draws frame number `sequence` of the built-in generator, exactly as a stream with these
 * settings delivers it: NV12 of width by height (both even) turned clockwise by rotation (0, 90,
 * 180 or 270), so that tests can predict a stream's pixels. nv12 holds size bytes, at least
 * width * height * 3 / 2. Returns 0, or -1 for invalid arguments. */
int stemlib_host_render_generator_frame(unsigned int width, unsigned int height,
                                        unsigned int rotation, unsigned long long sequence,
                                        unsigned char* nv12, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* STEMLIB_HOST_H */
