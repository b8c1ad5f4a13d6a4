# SPDX-License-Identifier: Apache-2.0
# Debian ships Android's libbase and liblog outside the default search path:
# headers under <include>/android, libraries under <multiarch libdir>/android.
# CMAKE_LIBRARY_ARCHITECTURE keeps a cross build (aarch64-linux-gnu) on its own copies.
find_path(ANDROID_BASE_INCLUDE_DIR android-base/logging.h PATH_SUFFIXES android REQUIRED)
set(_android_lib_hints
    /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android
    ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
find_library(ANDROID_BASE_LIBRARY NAMES base HINTS ${_android_lib_hints} NO_DEFAULT_PATH REQUIRED)
find_library(ANDROID_LOG_LIBRARY NAMES log HINTS ${_android_lib_hints} NO_DEFAULT_PATH REQUIRED)

add_library(android::base SHARED IMPORTED)
set_target_properties(android::base PROPERTIES
    IMPORTED_LOCATION ${ANDROID_BASE_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_BASE_INCLUDE_DIR})
add_library(android::log SHARED IMPORTED)
set_target_properties(android::log PROPERTIES
    IMPORTED_LOCATION ${ANDROID_LOG_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_BASE_INCLUDE_DIR})
get_filename_component(ANDROID_PLATFORM_LIBDIR ${ANDROID_BASE_LIBRARY} DIRECTORY)
