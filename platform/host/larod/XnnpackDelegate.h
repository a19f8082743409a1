// The XNNPACK delegate of TensorFlow Lite 2.9, as the engine's C library exports it.
//
// The library (libtensorflowlite_c.so 2.9.0 of the engine tarball) exports the delegate's
// functions, but the tarball's headers do not declare them: they are declared here, once, as that
// library defines them. Its options are 8 bytes, the thread count and the flags (releases after
// it add a weights cache behind them; this library copies 8 bytes and returns its defaults in one
// register). Used by the host inference service; tests check the declarations against the
// library.
#pragma once

#include <tensorflow/lite/c/common.h>

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Enables signed 8-bit quantized operators, per-channel quantized weights included.
#define TFLITE_XNNPACK_DELEGATE_FLAG_QS8 0x00000001
// Enables unsigned 8-bit quantized operators.
#define TFLITE_XNNPACK_DELEGATE_FLAG_QU8 0x00000002
typedef struct {
    // Threads of the delegate's thread pool; 0 or 1 runs on the calling thread alone.
    int32_t num_threads;
    // TFLITE_XNNPACK_DELEGATE_FLAG_* bits.
    uint32_t flags;
} TfLiteXNNPackDelegateOptions;

// No thread pool, no quantized operators.
TfLiteXNNPackDelegateOptions TfLiteXNNPackDelegateOptionsDefault(void);
// A delegate that TfLiteXNNPackDelegateDelete releases after every interpreter using it.
TfLiteDelegate* TfLiteXNNPackDelegateCreate(const TfLiteXNNPackDelegateOptions* options);
// The delegate's thread pool (a pthreadpool_t), null when it runs on the calling thread.
void* TfLiteXNNPackDelegateGetThreadPool(TfLiteDelegate* delegate);
void TfLiteXNNPackDelegateDelete(TfLiteDelegate* delegate);

#ifdef __cplusplus
}
#endif
