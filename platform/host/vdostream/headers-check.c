/* Compiled as C: the stand-in headers must stay valid C for the camera SDK's C applications. */
#include <axsdk/axparameter.h>
#include <vdo-buffer.h>
#include <vdo-channel.h>
#include <vdo-error.h>
#include <vdo-frame.h>
#include <vdo-map.h>
#include <vdo-stream.h>
#include <vdo-types.h>

#include "stemlib-host.h"
