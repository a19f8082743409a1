# TensorFlow Lite 2.9, the engine of the host inference service. scripts/fetch-tflite.sh (run by
# scripts/install-deps.sh) puts its C library and C API headers in a cache outside the source
# tree; this finds them there and defines the imported target stemlib_tflite.

set(_stemlib_tflite_default "")
if(DEFINED ENV{STEMLIB_TFLITE_DIR} AND NOT "$ENV{STEMLIB_TFLITE_DIR}" STREQUAL "")
    set(_stemlib_tflite_default "$ENV{STEMLIB_TFLITE_DIR}")
elseif(DEFINED ENV{XDG_CACHE_HOME} AND NOT "$ENV{XDG_CACHE_HOME}" STREQUAL "")
    set(_stemlib_tflite_default "$ENV{XDG_CACHE_HOME}/stemlib/tflite-2.9")
else()
    set(_stemlib_tflite_default "$ENV{HOME}/.cache/stemlib/tflite-2.9")
endif()
set(STEMLIB_TFLITE_DIR "${_stemlib_tflite_default}" CACHE PATH
    "Where scripts/fetch-tflite.sh put TensorFlow Lite (include/ and lib/)")

find_path(STEMLIB_TFLITE_INCLUDE_DIR tensorflow/lite/c/c_api.h
    PATHS "${STEMLIB_TFLITE_DIR}/include" NO_DEFAULT_PATH)
find_library(STEMLIB_TFLITE_LIBRARY tensorflowlite_c
    PATHS "${STEMLIB_TFLITE_DIR}/lib" NO_DEFAULT_PATH)
if(NOT STEMLIB_TFLITE_INCLUDE_DIR OR NOT STEMLIB_TFLITE_LIBRARY)
    message(FATAL_ERROR
        "TensorFlow Lite not found in ${STEMLIB_TFLITE_DIR}. Run scripts/install-deps.sh "
        "(or scripts/fetch-tflite.sh), or point STEMLIB_TFLITE_DIR at its include/ and lib/.")
endif()

add_library(stemlib_tflite SHARED IMPORTED GLOBAL)
set_target_properties(stemlib_tflite PROPERTIES
    IMPORTED_LOCATION "${STEMLIB_TFLITE_LIBRARY}"
    IMPORTED_SONAME "libtensorflowlite_c.so"
    INTERFACE_INCLUDE_DIRECTORIES "${STEMLIB_TFLITE_INCLUDE_DIR}"
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${STEMLIB_TFLITE_INCLUDE_DIR}")
