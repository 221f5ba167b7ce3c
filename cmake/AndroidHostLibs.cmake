# Debian ships host builds of the device's liblog, libbase and libbacktrace under
# /usr/lib/<multiarch>/android with headers under /usr/include/android. They are not
# on the default linker path, so each gets an imported target with an rpath.
include(GNUInstallDirs)
set(ANDROID_HOST_LIBDIR "/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android")
set(ANDROID_HOST_INCDIR "/usr/include/android")

foreach(lib log base backtrace)
  find_library(ANDROID_HOST_${lib}_LIBRARY NAMES ${lib} PATHS ${ANDROID_HOST_LIBDIR} NO_DEFAULT_PATH)
  if(NOT ANDROID_HOST_${lib}_LIBRARY)
    message(FATAL_ERROR "lib${lib} of the Android host packages is missing: apt-get install android-lib${lib}-dev")
  endif()
  add_library(android::${lib} SHARED IMPORTED)
  set_target_properties(android::${lib} PROPERTIES
    IMPORTED_LOCATION ${ANDROID_HOST_${lib}_LIBRARY}
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${ANDROID_HOST_INCDIR}
    INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_HOST_INCDIR})
endforeach()
set(CMAKE_BUILD_RPATH ${ANDROID_HOST_LIBDIR})
set(CMAKE_INSTALL_RPATH ${ANDROID_HOST_LIBDIR})
