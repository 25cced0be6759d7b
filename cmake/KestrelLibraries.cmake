# SPDX-License-Identifier: Apache-2.0
# A folder of src/kestrel/ is a layer and makes one object library mox_<folder> (or an interface library where it is all
# headers). The libraries that people link are joined from those.

# kestrel_folders(FOLDER...): adds each folder that has a CMakeLists.txt, in this order.
macro(kestrel_folders)
   foreach(folder ${ARGN})
      if(EXISTS ${PROJECT_SOURCE_DIR}/${folder}/CMakeLists.txt)
         add_subdirectory(${PROJECT_SOURCE_DIR}/${folder} ${PROJECT_BINARY_DIR}/${folder})
      endif()
   endforeach()
endmacro()

# kestrel_layers(LAYER...): adds each of these folders of src/kestrel/.
macro(kestrel_layers)
   foreach(layer ${ARGN})
      kestrel_folders(src/kestrel/${layer})
   endforeach()
endmacro()

# kestrel_folders_below(FOLDER): adds each folder directly below FOLDER that has a CMakeLists.txt, by name.
macro(kestrel_folders_below parent)
   file(GLOB lists CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/${parent}/*/CMakeLists.txt)
   list(SORT lists)
   foreach(list ${lists})
      cmake_path(GET list PARENT_PATH folder)
      kestrel_folders(${folder})
   endforeach()
endmacro()

# kestrel_library(NAME FOLDERS folder... [SOURCES file...] [LINK library...])
#
# Joins the layers of the folders into one library lib<NAME>, alias Kestrel::<NAME>. Include folders of the layers, the
# generated ones among them, become the library's own. Adds NAME to KESTREL_LIBRARIES.
function(kestrel_library name)
   cmake_parse_arguments(arg "" "" "FOLDERS;SOURCES;LINK" ${ARGN})
   set(objects "")
   set(layers "")
   foreach(folder ${arg_FOLDERS})
      if(TARGET mox_${folder})
         list(APPEND layers mox_${folder})
         get_target_property(type mox_${folder} TYPE)
         if(type STREQUAL "OBJECT_LIBRARY")
            list(APPEND objects $<TARGET_OBJECTS:mox_${folder}>)
         endif()
      endif()
   endforeach()
   set(sources "")
   foreach(source ${arg_SOURCES})
      if(EXISTS ${PROJECT_SOURCE_DIR}/${source})
         list(APPEND sources ${PROJECT_SOURCE_DIR}/${source})
      endif()
   endforeach()

   if(objects OR sources)
      add_library(${name} ${sources} ${objects})
      set(scope PUBLIC)
      # Before 1.0 a minor version may break what was linked against the one before, so it is part of the name.
      set(interface ${PROJECT_VERSION_MAJOR})
      if(interface EQUAL 0)
         string(APPEND interface .${PROJECT_VERSION_MINOR})
      endif()
      set_target_properties(${name} PROPERTIES LINKER_LANGUAGE CXX VERSION ${PROJECT_VERSION} SOVERSION ${interface}
                            INSTALL_RPATH $ORIGIN)
   else()
      add_library(${name} INTERFACE)
      set(scope INTERFACE)
   endif()
   add_library(Kestrel::${name} ALIAS ${name})
   target_compile_features(${name} ${scope} cxx_std_20)
   target_include_directories(${name} ${scope} $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>
                             $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
   foreach(layer ${layers})
      set(folders $<TARGET_PROPERTY:${layer},INTERFACE_INCLUDE_DIRECTORIES>)
      target_include_directories(${name} ${scope} $<BUILD_INTERFACE:$<GENEX_EVAL:${folders}>>)
      add_dependencies(${name} ${layer})
      get_target_property(units ${layer} MOX_UNITS)
      if(units)
         mox_keep_units(${name} ${units})
         get_target_property(folder ${layer} BINARY_DIR)
         set_property(TARGET ${name} APPEND PROPERTY KESTREL_GENERATED ${folder}/gen)
      endif()
   endforeach()
   foreach(library ${arg_LINK})
      target_link_libraries(${name} ${scope} ${library})
   endforeach()
   set(KESTREL_LIBRARIES ${KESTREL_LIBRARIES} ${name} PARENT_SCOPE)
endfunction()
