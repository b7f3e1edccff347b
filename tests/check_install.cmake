# The library installed into a scratch prefix and a C program built against
# it exactly as the README shows (pkg-config): in C99 with -pedantic, in C11
# and as C++, linked dynamically, and statically with --static; each run.
# A static program also reads a value from a copy of the sample device root
# through qorcfg_offline.h.
#   cmake -DBUILD_DIR=... -DSCRATCH=... -DCC=... -DCXX=... -DDEVROOT=...
#         [-DLINK_FLAGS=...] -P check_install.cmake
# LINK_FLAGS are the build's own program link flags (--coverage, say).
cmake_minimum_required(VERSION 3.25)
set(prefix ${SCRATCH}/install-prefix)
set(work ${SCRATCH}/install-check)
file(REMOVE_RECURSE ${prefix} ${work})
file(MAKE_DIRECTORY ${work})

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${what} failed (${status}):\n${out}${err}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

run("cmake --install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
file(WRITE ${work}/prog.c [=[
#include <qorcfg.h>
#include <stdio.h>

int main(void) {
    const qorcfg_group *row = group_by_name("sys_device");
    char text[] = "<a b='1'/>";
    ezxml_node *root = ezxml_parse_str(text, sizeof text - 1);
    printf("%s %s\n", row != NULL ? row->path : "-", ezxml_attr(root, "b"));
    ezxml_free(root);
    return row == NULL;
}
]=])

set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
run("pkg-config" pkg-config --cflags --libs qorcfg)
separate_arguments(flags UNIX_COMMAND "${output}")
run("pkg-config --static" pkg-config --static --cflags --libs qorcfg)
separate_arguments(static_flags UNIX_COMMAND "${output}")
separate_arguments(link_flags UNIX_COMMAND "${LINK_FLAGS}")

set(builds
  "c99|${CC},-std=c99,-pedantic,-Werror,-Wall|dynamic"
  "c11|${CC},-std=c11,-pedantic,-Werror,-Wall|dynamic"
  "cxx|${CXX},-x,c++,-std=c++17,-Werror,-Wall|dynamic"
  "static|${CC},-std=c11,-static|static")
foreach(build IN LISTS builds)
  string(REPLACE "|" ";" parts "${build}")
  list(GET parts 0 name)
  list(GET parts 1 compile)
  list(GET parts 2 link)
  string(REPLACE "," ";" compile "${compile}")
  if(link STREQUAL "static")
    set(libs ${static_flags})
  else()
    set(libs ${flags})
  endif()
  run("building ${name}" ${compile} ${work}/prog.c ${libs} ${link_flags} -o ${work}/prog-${name})
  set(ENV{LD_LIBRARY_PATH} ${prefix}/lib)
  run("running ${name}" ${work}/prog-${name})
  if(NOT output STREQUAL "qorconfig.system.device 1\n")
    message(FATAL_ERROR "${name}: printed \"${output}\"")
  endif()
endforeach()
file(WRITE ${work}/image.c [=[
#include <qorcfg.h>
#include <qorcfg_offline.h>
#include <stdio.h>

int main(int argc, char **argv) {
    char value[256] = "";
    qorcfg_handle *handle;
    int rc;
    if (argc < 2 || qorcfg_offline_root(argv[1]) != 0)
        return 2;
    handle = init_qorcfg();
    rc = get_cfg_item_by_str(handle, "sys_device", "name", value);
    close_qorcfg(handle);
    printf("%d %s\n", rc, value);
    return rc != 0;
}
]=])
file(COPY ${DEVROOT}/ DESTINATION ${work}/image)
run("building the image reader" ${CC} -std=c99 -static ${work}/image.c ${static_flags} ${link_flags}
    -o ${work}/image-reader)
run("reading the image" ${work}/image-reader ${work}/image)
if(NOT output STREQUAL "0 AP-Lab-01\n")
  message(FATAL_ERROR "image reader: printed \"${output}\"")
endif()
file(REMOVE_RECURSE ${prefix} ${work})
