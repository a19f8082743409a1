/* Host-only controls of the PC stand-ins for the camera's services. Not part of the camera SDK:
 * applications and tests use them to pick a simulated camera and to make chosen calls fail.
 *
 * The camera in effect is read, at the first call into any stand-in, from the file named by the
 * environment variable STEMLIB_HOST_CAMERA, or is the built-in default camera when it is unset.
 * Failures can also be requested with the environment variable STEMLIB_HOST_FAIL, read at the
 * same moment: "call=message;call2=message2".
 *
 * All functions are thread-safe. */
#ifndef STEMLIB_HOST_H
#define STEMLIB_HOST_H

#ifdef __cplusplus
extern "C" {
#endif

/* Loads the camera description at path, or the built-in default camera when path is NULL, in
 * place of the current one. Returns 0 on success; on failure returns -1, keeps the current
 * camera and, when error is not NULL, stores a message that the caller releases with free(). */
int stemlib_host_load_camera(const char* path, char** error);

/* Makes every later call of the named function (for example "vdo_stream_get_buffer") fail with
 * message. A NULL message stops the failure. */
void stemlib_host_set_failure(const char* call, const char* message);

/* Like stemlib_host_set_failure, but the first `skip` calls still succeed. */
void stemlib_host_set_failure_after(const char* call, unsigned int skip, const char* message);

/* Stops every requested failure, also those of the description file and STEMLIB_HOST_FAIL. */
void stemlib_host_clear_failures(void);

#ifdef __cplusplus
}
#endif

#endif /* STEMLIB_HOST_H */
