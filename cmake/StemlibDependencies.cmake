# Third-party libraries of the library, all from Debian's packages (scripts/install-deps.sh).
# Everything found here is also recorded for the installed CMake package and stemlib.pc.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenCV 4 REQUIRED COMPONENTS core imgproc imgcodecs calib3d aruco videoio)

pkg_check_modules(STEMLIB_PC REQUIRED IMPORTED_TARGET
    cairo freetype2 glib-2.0 gobject-2.0 fcgi liburiparser)

# libyuv ships no pkg-config file.
find_path(LIBYUV_INCLUDE_DIR libyuv.h REQUIRED)
find_library(LIBYUV_LIBRARY yuv REQUIRED)
add_library(stemlib_libyuv INTERFACE)
target_include_directories(stemlib_libyuv SYSTEM INTERFACE ${LIBYUV_INCLUDE_DIR})
target_link_libraries(stemlib_libyuv INTERFACE ${LIBYUV_LIBRARY})

# Modules of the installed package's pkg-config file (Requires:) and its extra libs (Libs.private:).
set(STEMLIB_PC_REQUIRES "opencv4 cairo freetype2 glib-2.0 gobject-2.0")
set(STEMLIB_PC_LIBS_PRIVATE "-lyuv -lfcgi -luriparser -lpthread")

function(stemlib_link_dependencies target)
    target_include_directories(${target} SYSTEM PUBLIC ${OpenCV_INCLUDE_DIRS})
    target_link_libraries(${target}
        PUBLIC
            ${OpenCV_LIBS}
            PkgConfig::STEMLIB_PC
            Threads::Threads
            stemlib_platform
        PRIVATE
            ${LIBYUV_LIBRARY})
    target_include_directories(${target} SYSTEM PRIVATE ${LIBYUV_INCLUDE_DIR})
endfunction()
