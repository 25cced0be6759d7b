# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` puts in place, all of it below one prefix and movable with it:
#
#   include/kestrel/      public headers, those that were made from schemas among them
#   lib/                  the libraries, and cmake/Kestrel/ for find_package
#   bin/moxc              the schema compiler
#   share/kestrel/        the schemas, for those of other people to refer to
#   share/doc/            the licence
include(CMakePackageConfigHelpers)

set(schemas ${CMAKE_INSTALL_DATADIR}/kestrel/schemas)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/Kestrel)

install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The rpath of the libraries is their own folder.
install(TARGETS ${KESTREL_LIBRARIES} moxc EXPORT KestrelTargets)
install(EXPORT KestrelTargets NAMESPACE Kestrel:: DESTINATION ${package})

# A header that shows asio is none of a user's business.
install(DIRECTORY src/kestrel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h"
        PATTERN moxc EXCLUDE PATTERN net/Carrier.h EXCLUDE)
foreach(library ${KESTREL_LIBRARIES})
   get_target_property(generated ${library} KESTREL_GENERATED)
   foreach(folder ${generated})
      install(DIRECTORY ${folder}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
   endforeach()
endforeach()

# Prefix and file take turns, as mox_add_entities keeps them.
get_property(known GLOBAL PROPERTY MOX_SCHEMAS)
set(KESTREL_SCHEMAS "")
set(KESTREL_MAKERS "")
set(prefix "")
foreach(word ${known})
   if(prefix STREQUAL "")
      set(prefix ${word})
   else()
      cmake_path(RELATIVE_PATH word BASE_DIRECTORY ${PROJECT_SOURCE_DIR}/src/kestrel OUTPUT_VARIABLE file)
      cmake_path(GET file PARENT_PATH folder)
      install(FILES ${word} DESTINATION ${schemas}/${folder})
      string(APPEND KESTREL_SCHEMAS "\n   ${prefix} \${schemas}/${file}")
      cmake_path(GET file STEM stem)
      get_property(maker GLOBAL PROPERTY MOX_MAKER_${prefix}/${stem})
      if(maker)
         string(APPEND KESTREL_MAKERS "\n   set_property(GLOBAL PROPERTY MOX_MAKER_${prefix}/${stem} Kestrel)")
      endif()
      set(prefix "")
   endif()
endforeach()

configure_package_config_file(cmake/KestrelConfig.cmake.in KestrelConfig.cmake INSTALL_DESTINATION ${package}
                              PATH_VARS schemas NO_CHECK_REQUIRED_COMPONENTS_MACRO)
# Before 1.0 a minor version may break what people wrote.
write_basic_package_version_file(KestrelConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KestrelConfig.cmake ${PROJECT_BINARY_DIR}/KestrelConfigVersion.cmake
              cmake/MoxEntities.cmake
        DESTINATION ${package})
