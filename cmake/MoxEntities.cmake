# mox_add_entities(TARGET FILE... [IMPORT FILE...] [PREFIX FOLDER] [UNIT NAME])
#
# Compiles entity schemas into the sources of TARGET, an existing library or program.
#
#   FILE...  one schema per entity type; schemas that hold value types alone may be among them
#   IMPORT   schemas that the files refer to and that no earlier call has compiled
#   PREFIX   folder of the headers as include lines name it; the target's name in small letters if absent
#   UNIT     name of the registration unit, which makes the types known when the library is loaded; the target's name if
#            absent. A unit that registers nothing is not written. One name, one unit of a statically linked program.
#
# Everything that earlier calls compiled may be referred to without an IMPORT.

# mox_keep_units(TARGET UNIT...): has whatever links TARGET, a static library, take these registration units from it. Nobody
# refers to them, so a linker would leave them in the archive, and the types would be unknown by name.
function(mox_keep_units target)
   get_target_property(type ${target} TYPE)
   if(type STREQUAL "STATIC_LIBRARY")
      foreach(unit ${ARGN})
         target_link_options(${target} INTERFACE LINKER:--undefined=moxInit${unit})
      endforeach()
   endif()
endfunction()

function(mox_add_entities target)
   cmake_parse_arguments(arg "" "PREFIX;UNIT" "IMPORT" ${ARGN})
   if(NOT arg_UNPARSED_ARGUMENTS)
      message(FATAL_ERROR "mox_add_entities(${target}): expected at least one schema")
   endif()
   if(NOT DEFINED arg_PREFIX)
      string(TOLOWER ${target} arg_PREFIX)
   endif()
   if(NOT DEFINED arg_UNIT)
      string(MAKE_C_IDENTIFIER ${target} arg_UNIT)
   endif()
   set(folder ${CMAKE_CURRENT_BINARY_DIR}/gen)

   # Of earlier calls: prefix and file take turns.
   get_property(known GLOBAL PROPERTY MOX_SCHEMAS)
   set(imports "")
   set(inputs "")
   set(prefix "")
   foreach(word ${known})
      if(prefix STREQUAL "")
         set(prefix ${word})
      else()
         list(APPEND imports --prefix ${prefix} --import ${word})
         list(APPEND inputs ${word})
         set(prefix "")
      endif()
   endforeach()
   foreach(file ${arg_IMPORT})
      cmake_path(ABSOLUTE_PATH file)
      list(APPEND imports --prefix ${arg_PREFIX} --import ${file})
      list(APPEND inputs ${file})
   endforeach()

   set(schemas "")
   set(outputs "")
   foreach(file ${arg_UNPARSED_ARGUMENTS})
      cmake_path(ABSOLUTE_PATH file)
      list(APPEND schemas ${file})
      list(APPEND known ${arg_PREFIX} ${file})
      cmake_path(GET file STEM stem)
      # What will be written depends on two lines of the schema alone, so this needs no run of the compiler. Configuring
      # runs again when they may have changed.
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
      file(STRINGS ${file} entity REGEX "^\\[entity\\]")
      file(STRINGS ${file} without_log REGEX "^log *= *false")
      if(entity)
         set(path ${folder}/${arg_PREFIX}/${stem})
         list(APPEND outputs ${path}.h ${path}Reactor.h ${path}.cc)
         if(NOT without_log)
            list(APPEND outputs ${path}Log.h)
         endif()
      endif()
   endforeach()
   set_property(GLOBAL PROPERTY MOX_SCHEMAS "${known}")
   if(NOT outputs)
      return()
   endif()
   list(APPEND outputs ${folder}/${arg_UNIT}Registration.cc)

   add_custom_command(
      OUTPUT ${outputs}
      COMMAND Kestrel::moxc --out ${folder} --unit ${arg_UNIT} ${imports} --prefix ${arg_PREFIX} ${schemas}
      DEPENDS $<TARGET_FILE:Kestrel::moxc> ${schemas} ${inputs}
      COMMENT "Compiling the entity schemas of ${target}"
      VERBATIM)
   target_sources(${target} PRIVATE ${outputs})
   set_property(TARGET ${target} APPEND PROPERTY MOX_UNITS ${arg_UNIT})
   mox_keep_units(${target} ${arg_UNIT})
   target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${folder}>)
   # Others include the headers, so they must not compile before these are there.
   add_custom_target(${target}_headers DEPENDS ${outputs})
   add_dependencies(${target} ${target}_headers)
endfunction()
