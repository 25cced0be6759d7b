# SPDX-License-Identifier: Apache-2.0
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
# One call for a target. Everything that earlier calls compiled may be referred to without an IMPORT.

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

# mox_outputs(VARIABLE FOLDER PREFIX IMPORTS FILE...): what the compiler makes of the schemas below FOLDER, without a unit.
# An installed compiler is asked. One that this build is yet to make can't be: then two lines of the schema say it.
function(mox_outputs variable folder prefix imports)
   set(outputs "")
   get_target_property(installed Kestrel::moxc IMPORTED)
   if(installed)
      get_target_property(moxc Kestrel::moxc LOCATION)
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${moxc})
      execute_process(COMMAND ${moxc} --list --out ${folder} ${imports} --prefix ${prefix} ${ARGN}
                      OUTPUT_VARIABLE outputs ERROR_VARIABLE errors RESULT_VARIABLE status)
      if(NOT status EQUAL 0)
         string(REPLACE "\n" "\n  " errors "  ${errors}") # as it is: CMake would fill the lines
         message(FATAL_ERROR "mox_add_entities: moxc says\n${errors}")
      endif()
      string(REPLACE "\n" ";" outputs "${outputs}")
      list(REMOVE_ITEM outputs "")
   else()
      foreach(file ${ARGN})
         file(STRINGS ${file} entity REGEX "^[ \t]*\\[[ \t]*entity[ \t]*\\]")
         file(STRINGS ${file} without_log REGEX "^[ \t]*log[ \t]*=[ \t]*false")
         if(entity)
            cmake_path(GET file STEM stem)
            set(path ${folder}/${prefix}/${stem})
            list(APPEND outputs ${path}.h ${path}Reactor.h ${path}.cc)
            if(NOT without_log)
               list(APPEND outputs ${path}Log.h)
            endif()
         endif()
      endforeach()
   endif()
   set(${variable} ${outputs} PARENT_SCOPE)
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
   foreach(file ${arg_UNPARSED_ARGUMENTS})
      cmake_path(ABSOLUTE_PATH file)
      if(NOT EXISTS ${file})
         message(FATAL_ERROR "mox_add_entities(${target}): expected a schema, got nothing of the name ${file}")
      endif()
      list(APPEND schemas ${file})
      list(APPEND known ${arg_PREFIX} ${file})
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
   endforeach()
   set_property(GLOBAL PROPERTY MOX_SCHEMAS "${known}")
   if(TARGET ${target}_headers)
      message(FATAL_ERROR "mox_add_entities(${target}): expected one call for a target, with all of its schemas")
   endif()
   # Before the compiler is asked, which would speak of schemas and not of targets.
   foreach(file ${schemas})
      cmake_path(GET file STEM stem)
      get_property(maker GLOBAL PROPERTY MOX_MAKER_${arg_PREFIX}/${stem})
      if(maker)
         list(APPEND taken "  ${arg_PREFIX}/${stem}.h is made by ${maker} already, for the schema ${file}\n")
      endif()
   endforeach()
   get_property(maker GLOBAL PROPERTY MOX_MAKER_OF_UNIT_${folder}/${arg_UNIT})
   if(maker)
      list(APPEND taken "  the unit ${arg_UNIT} of this folder is made by ${maker} already, and UNIT chooses another\n")
   endif()
   if(taken)
      list(JOIN taken "" taken)
      message(FATAL_ERROR "mox_add_entities(${target}): expected names of its own, by PREFIX, but\n${taken}")
   endif()
   mox_outputs(outputs ${folder} ${arg_PREFIX} "${imports}" ${schemas})
   foreach(file ${schemas})
      cmake_path(GET file STEM stem)
      if(${folder}/${arg_PREFIX}/${stem}.cc IN_LIST outputs)
         set_property(GLOBAL PROPERTY MOX_MAKER_${arg_PREFIX}/${stem} ${target})
      endif()
   endforeach()
   if(NOT outputs)
      return()
   endif()
   set_property(GLOBAL PROPERTY MOX_MAKER_OF_UNIT_${folder}/${arg_UNIT} ${target})
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
