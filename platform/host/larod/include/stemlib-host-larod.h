/* Host-only controls of the inference service stand-in (liblarod). Not part of the camera SDK.
 *
 * The stand-in records every larod call of the process, in order, in a call log, so that a test
 * can check the order of a start or a tear-down. Each entry is the function's name, followed by
 * a blank and a detail for some calls:
 *   larodGetDevice, larodLoadModel           the device name
 *   larodCreateModelInputs/Outputs           the number of tensors
 *   larodGetTensorDims, larodSetTensorFd     "input <i>" or "output <i>"
 *   larodDestroyTensors                      "inputs" or "outputs", then ", files open" when a
 *                                            descriptor bound to one of the tensors is still open
 *                                            or ", files closed" when all bound ones are closed
 *   larodDestroyJobRequest, larodDeleteModel,
 *   larodDestroyModel, larodDisconnect,
 *   larodDestroyTensors                      "null" for a null handle
 * A failed call gets " failed" at the end. The log keeps the last 4096 entries.
 *
 * Which devices the service lists, in which order, comes from the camera description's
 * "larod.devices" (see stemlib-host.h); "larod.threads" sets the engine's thread count (1 when
 * absent). Any larod call that takes an error argument can be made to fail with
 * stemlib_host_set_failure("<call name>", "<message>"), and so can the XNNPACK delegate of a
 * model loaded on a device of "larod.xnnpack" ("TfLiteXNNPackDelegateCreate"): the model then
 * runs on TensorFlow Lite's default kernels, and the service logs a warning with the message.
 *
 * All functions are thread-safe. */
#ifndef STEMLIB_HOST_LAROD_H
#define STEMLIB_HOST_LAROD_H

#ifdef __cplusplus
extern "C" {
#endif

/* Empties the call log. */
void stemlib_host_larod_clear_log(void);

/* The call log, one entry a line, each line ending in '\n'. The caller releases the text with
 * free(). */
char* stemlib_host_larod_log(void);

#ifdef __cplusplus
}
#endif

#endif /* STEMLIB_HOST_LAROD_H */
