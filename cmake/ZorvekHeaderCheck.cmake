# zorvek_header_check(<target> BASES <dir>[=<prefix>]... LIBS <lib>...): one translation
# unit per header under each <dir>, including only that header (twice, so that a missing
# include guard shows too), compiled into the object library <target>. A header that leans on
# something another header brought in first fails to compile on its own here.
function(zorvek_header_check target)
  cmake_parse_arguments(ARG "" "" "BASES;LIBS" ${ARGN})
  set(sources)
  foreach(base ${ARG_BASES})
    # A base is "<dir>" or "<dir>=<prefix>": headers of <dir> are included as <prefix>/<path>.
    string(REPLACE "=" ";" parts ${base})
    list(GET parts 0 dir)
    set(prefix "")
    list(LENGTH parts n)
    if(n GREATER 1)
      list(GET parts 1 prefix)
      set(prefix "${prefix}/")
    endif()
    file(GLOB_RECURSE headers CONFIGURE_DEPENDS RELATIVE ${dir} ${dir}/*.h)
    foreach(header ${headers})
      set(tu ${CMAKE_CURRENT_BINARY_DIR}/${target}/${prefix}${header}.cpp)
      file(CONFIGURE OUTPUT ${tu}
           CONTENT "#include \"${prefix}${header}\"\n#include \"${prefix}${header}\"\n")
      list(APPEND sources ${tu})
    endforeach()
  endforeach()
  add_library(${target} OBJECT ${sources})
  target_link_libraries(${target} PRIVATE ${ARG_LIBS})
endfunction()
