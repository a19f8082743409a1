/* The camera's inference service client: connection, devices, models, tensors and jobs.
 *
 * This is the host platform's implementation of the camera SDK's C API, with the SDK's names,
 * types and values, so that code written for the camera compiles unchanged against it. Models
 * run for real with TensorFlow Lite, whatever device is chosen, on one thread unless the camera
 * description's "larod.threads" asks for more.
 *
 * Conventions of every call: a call that fails returns false, NULL or an invalid value and, when
 * error is not NULL, sets *error to a new larodError that the caller releases with
 * larodClearError. Destroy and disconnect calls accept NULL handles.
 *
 * Tensor exchange, as on the camera: a job reads each input tensor from its file descriptor at
 * offset 0 without moving the descriptor's position, and writes each output with write() at the
 * descriptor's current position. Callers rewind output descriptors before each job.
 *
 * Ownership: arrays of tensors from larodCreateModelInputs/Outputs belong to the caller and are
 * released with larodDestroyTensors; the device array of larodListDevices belongs to the
 * connection and lives as long as it. A job request copies the tensors' descriptions (file
 * descriptors included) when it is created.
 *
 * Threads: a connection and everything made from it serve one thread at a time. */
#ifndef LAROD_H
#define LAROD_H

#include <limits.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LAROD_TENSOR_MAX_LEN 12
#define LAROD_INVALID_FD INT_MIN
#define LAROD_INVALID_MODEL_ID UINT64_MAX

typedef struct larodConnection larodConnection;
typedef struct larodDevice larodDevice;
typedef struct larodModel larodModel;
typedef struct larodTensor larodTensor;
typedef struct larodJobRequest larodJobRequest;
typedef struct larodMap larodMap;

typedef enum {
    LAROD_ERROR_NONE = 0,
    LAROD_ERROR_JOB = -1,
    LAROD_ERROR_LOAD_MODEL = -2,
    LAROD_ERROR_FD = -3,
    LAROD_ERROR_MODEL_NOT_FOUND = -4,
    LAROD_ERROR_PERMISSION = -5,
    LAROD_ERROR_CONNECTION = -6,
    LAROD_ERROR_CREATE_SESSION = -7,
    LAROD_ERROR_KILL_SESSION = -8,
    LAROD_ERROR_INVALID_CHIP_ID = -9,
    LAROD_ERROR_INVALID_ACCESS = -10,
    LAROD_ERROR_DELETE_MODEL = -11,
    LAROD_ERROR_TENSOR_MISMATCH = -12,
    LAROD_ERROR_VERSION_MISMATCH = -13,
    LAROD_ERROR_ALLOC = -14,
    LAROD_ERROR_POWER_NOT_AVAILABLE = -15,
    LAROD_ERROR_MAX_ERRNO = 1024
} larodErrorCode;

typedef struct {
    larodErrorCode code;
    const char* msg;
} larodError;

typedef enum {
    LAROD_ACCESS_INVALID = 0,
    LAROD_ACCESS_PRIVATE = 1,
    LAROD_ACCESS_PUBLIC = 2
} larodAccess;

typedef enum {
    LAROD_TENSOR_DATA_TYPE_INVALID = 0,
    LAROD_TENSOR_DATA_TYPE_UNSPECIFIED = 1,
    LAROD_TENSOR_DATA_TYPE_BOOL = 2,
    LAROD_TENSOR_DATA_TYPE_UINT8 = 3,
    LAROD_TENSOR_DATA_TYPE_INT8 = 4,
    LAROD_TENSOR_DATA_TYPE_UINT16 = 5,
    LAROD_TENSOR_DATA_TYPE_INT16 = 6,
    LAROD_TENSOR_DATA_TYPE_UINT32 = 7,
    LAROD_TENSOR_DATA_TYPE_INT32 = 8,
    LAROD_TENSOR_DATA_TYPE_UINT64 = 9,
    LAROD_TENSOR_DATA_TYPE_INT64 = 10,
    LAROD_TENSOR_DATA_TYPE_FLOAT16 = 11,
    LAROD_TENSOR_DATA_TYPE_FLOAT32 = 12,
    LAROD_TENSOR_DATA_TYPE_FLOAT64 = 13,
    LAROD_TENSOR_DATA_TYPE_MAX = 14
} larodTensorDataType;

typedef enum {
    LAROD_TENSOR_LAYOUT_INVALID = 0,
    LAROD_TENSOR_LAYOUT_UNSPECIFIED = 1,
    LAROD_TENSOR_LAYOUT_NHWC = 2,
    LAROD_TENSOR_LAYOUT_NCHW = 3,
    LAROD_TENSOR_LAYOUT_420SP = 4,
    LAROD_TENSOR_LAYOUT_MAX = 5
} larodTensorLayout;

typedef struct {
    size_t dims[LAROD_TENSOR_MAX_LEN];
    size_t len;
} larodTensorDims;

typedef struct {
    size_t pitches[LAROD_TENSOR_MAX_LEN];
    size_t len;
} larodTensorPitches;

/* Errors. */
void larodClearError(larodError** error);

/* Connection. */
bool larodConnect(larodConnection** conn, larodError** error);
bool larodDisconnect(larodConnection** conn, larodError** error);

/* Devices, in the order the service lists them. */
const larodDevice** larodListDevices(larodConnection* conn, size_t* numDevices, larodError** error);
const larodDevice* larodGetDevice(const larodConnection* conn, const char* name, uint32_t instance,
                                  larodError** error);
const char* larodGetDeviceName(const larodDevice* dev, larodError** error);

/* Models. larodDeleteModel removes the model from the service; larodDestroyModel frees the
 * handle only. */
larodModel* larodLoadModel(larodConnection* conn, int fd, const larodDevice* dev,
                           larodAccess access, const char* name, const larodMap* params,
                           larodError** error);
bool larodDeleteModel(larodConnection* conn, larodModel* model, larodError** error);
void larodDestroyModel(larodModel** model);
size_t larodGetModelNumInputs(const larodModel* model, larodError** error);
size_t larodGetModelNumOutputs(const larodModel* model, larodError** error);

/* Tensors. */
larodTensor** larodCreateModelInputs(const larodModel* model, size_t* numTensors,
                                     larodError** error);
larodTensor** larodCreateModelOutputs(const larodModel* model, size_t* numTensors,
                                      larodError** error);
bool larodDestroyTensors(larodConnection* conn, larodTensor*** tensors, size_t numTensors,
                         larodError** error);
const larodTensorDims* larodGetTensorDims(const larodTensor* tensor, larodError** error);
const larodTensorPitches* larodGetTensorPitches(const larodTensor* tensor, larodError** error);
larodTensorDataType larodGetTensorDataType(const larodTensor* tensor, larodError** error);
larodTensorLayout larodGetTensorLayout(const larodTensor* tensor, larodError** error);
bool larodGetTensorByteSize(const larodTensor* tensor, size_t* byteSize, larodError** error);
bool larodSetTensorFd(larodTensor* tensor, int fd, larodError** error);
int larodGetTensorFd(const larodTensor* tensor, larodError** error);

/* Parameter maps. */
larodMap* larodCreateMap(larodError** error);
void larodDestroyMap(larodMap** map);
bool larodMapSetStr(larodMap* map, const char* key, const char* value, larodError** error);
bool larodMapSetInt(larodMap* map, const char* key, int64_t value, larodError** error);

/* Jobs. */
larodJobRequest* larodCreateJobRequest(const larodModel* model, larodTensor** inputTensors,
                                       size_t numInputs, larodTensor** outputTensors,
                                       size_t numOutputs, larodMap* params, larodError** error);
void larodDestroyJobRequest(larodJobRequest** jobReq);
bool larodRunJob(larodConnection* conn, const larodJobRequest* jobReq, larodError** error);

#ifdef __cplusplus
}
#endif

#endif /* LAROD_H */
