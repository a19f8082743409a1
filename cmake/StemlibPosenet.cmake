# The published PoseNet (a TensorFlow.js graph model with trained weights) and TensorFlow.js, the
# engine it is checked against. scripts/fetch-posenet.sh (run by scripts/install-deps.sh) puts
# them in a cache outside the source tree; this finds them there. Without the model the forge
# writes only its own models, and what needs the real network is skipped with a message.
#   STEMLIB_POSENET_DIR   folder of posenet.json and posenet.bin, or empty when not found
#   STEMLIB_TFJS_DIR      folder whose node_modules holds @tensorflow/tfjs, or empty
#   STEMLIB_NODE          the Node.js program, or empty

if(DEFINED ENV{XDG_CACHE_HOME} AND NOT "$ENV{XDG_CACHE_HOME}" STREQUAL "")
    set(_stemlib_cache "$ENV{XDG_CACHE_HOME}/stemlib")
else()
    set(_stemlib_cache "$ENV{HOME}/.cache/stemlib")
endif()
set(_stemlib_human_models "${_stemlib_cache}/human-models-3.0.4")
if(DEFINED ENV{STEMLIB_HUMAN_MODELS_DIR} AND NOT "$ENV{STEMLIB_HUMAN_MODELS_DIR}" STREQUAL "")
    set(_stemlib_human_models "$ENV{STEMLIB_HUMAN_MODELS_DIR}")
endif()
set(_stemlib_tfjs "${_stemlib_cache}/tfjs-4.22.0")
if(DEFINED ENV{STEMLIB_TFJS_DIR} AND NOT "$ENV{STEMLIB_TFJS_DIR}" STREQUAL "")
    set(_stemlib_tfjs "$ENV{STEMLIB_TFJS_DIR}")
endif()
set(STEMLIB_HUMAN_MODELS_DIR "${_stemlib_human_models}" CACHE PATH
    "Where scripts/fetch-posenet.sh put the published PoseNet (posenet.json, posenet.bin)")
set(STEMLIB_TFJS_INSTALL_DIR "${_stemlib_tfjs}" CACHE PATH
    "Where scripts/fetch-posenet.sh installed TensorFlow.js (node_modules)")

if(EXISTS "${STEMLIB_HUMAN_MODELS_DIR}/posenet.json" AND
   EXISTS "${STEMLIB_HUMAN_MODELS_DIR}/posenet.bin")
    set(STEMLIB_POSENET_DIR "${STEMLIB_HUMAN_MODELS_DIR}" CACHE INTERNAL "")
else()
    set(STEMLIB_POSENET_DIR "" CACHE INTERNAL "")
    message(WARNING "The published PoseNet is not in ${STEMLIB_HUMAN_MODELS_DIR}: the converted "
        "pose models are not built and their tests are skipped. Run scripts/install-deps.sh "
        "(or scripts/fetch-posenet.sh), or point STEMLIB_HUMAN_MODELS_DIR at the files.")
endif()
if(EXISTS "${STEMLIB_TFJS_INSTALL_DIR}/node_modules/@tensorflow/tfjs/package.json")
    set(STEMLIB_TFJS_DIR "${STEMLIB_TFJS_INSTALL_DIR}" CACHE INTERNAL "")
else()
    set(STEMLIB_TFJS_DIR "" CACHE INTERNAL "")
endif()
find_program(STEMLIB_NODE NAMES node nodejs)
if(NOT STEMLIB_NODE)
    set(STEMLIB_NODE "")
endif()
