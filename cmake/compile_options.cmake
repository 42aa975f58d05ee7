# How everything of the project is compiled: the targets vornix_warnings and vornix_hardening, and the sanitizers.

# What the compilers are asked to find. gcc 12, clang 14 and mingw-w64's gcc 12 know all of these, save those in the
# generator expression; ./check builds with all three, and a warning is an error.
add_library(vornix_warnings INTERFACE)
if(MSVC)
  target_compile_options(vornix_warnings INTERFACE /WX /W4 /permissive- /utf-8 /Zc:__cplusplus /Zc:preprocessor)
else()
  target_compile_options(vornix_warnings INTERFACE
    -Werror
    -Wall
    -Wextra
    -Wpedantic
    -Wcast-align
    -Wcast-qual
    -Wconversion
    -Wdouble-promotion
    -Wextra-semi
    -Wformat=2
    -Wimplicit-fallthrough
    -Wmissing-declarations
    -Wnon-virtual-dtor
    -Wold-style-cast
    -Woverloaded-virtual
    -Wshadow
    -Wsign-conversion
    -Wundef
    -Wunused
    -Wvla
    $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-branches -Wduplicated-cond -Wlogical-op>)
endif()

# The process survives an administrator's mistakes with the disk at stake, so it carries what the platform offers.
add_library(vornix_hardening INTERFACE)
if(MSVC)
  target_compile_options(vornix_hardening INTERFACE /GS /sdl /guard:cf)
  target_link_options(vornix_hardening INTERFACE /INCREMENTAL:NO /DYNAMICBASE /HIGHENTROPYVA /NXCOMPAT /GUARD:CF)
else()
  target_compile_options(vornix_hardening INTERFACE -fstack-protector-strong)
endif()
if(MINGW)
  target_link_options(vornix_hardening INTERFACE
    -static
    -fstack-protector-strong
    -Wl,--dynamicbase,--nxcompat,--high-entropy-va
    # The same sources give the same bytes: no time of the link in the file.
    -Wl,--no-insert-timestamp)
elseif(NOT WIN32)
  target_link_options(vornix_hardening INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
endif()

# No path of the checkout in what is built, so that two builds in different folders give the same bytes.
if(MSVC)
  add_compile_options(/Brepro)
  add_link_options(/Brepro /PDBALTPATH:%_PDB%)
  # The runtime library in the executable, which then needs no installation of it.
  set(CMAKE_MSVC_RUNTIME_LIBRARY "MultiThreaded$<$<CONFIG:Debug>:Debug>")
else()
  add_compile_options("-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.")
endif()

if(VORNIX_SANITIZE)
  # For all targets, those of the tests too. The first finding ends the process: one that only prints is overlooked.
  # Of what a debugger needs, the lines for the stack of a finding: to follow variables through all that the sanitizers
  # add takes the compiler four times as long as the rest.
  add_compile_options(-O1 -g1 -fno-omit-frame-pointer -fsanitize=address,undefined -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(NOT WIN32)
  target_compile_definitions(vornix_hardening INTERFACE $<$<CONFIG:Release,RelWithDebInfo>:_FORTIFY_SOURCE=2>)
endif()

# For what reads and writes a lot of JSON, whose library takes a sanitizing compiler longer than all else there: its
# tests wait for few of its instructions, and no fuzz target reaches it, where it is compiled for the warnings alone.
function(vornix_compile_fast target)
  if(VORNIX_FUZZ)
    target_compile_options(${target} PRIVATE -O0 -fno-sanitize=all)
  elseif(VORNIX_SANITIZE)
    target_compile_options(${target} PRIVATE -O0)
  endif()
endfunction()

# Sets `variable` to the absolute paths of the files of the checkout that match the patterns. Editing a folder's content
# is enough to have it built; no list of files is kept by hand.
function(vornix_glob variable)
  list(TRANSFORM ARGN PREPEND "${PROJECT_SOURCE_DIR}/")
  file(GLOB files CONFIGURE_DEPENDS ${ARGN})
  set(${variable} ${files} PARENT_SCOPE)
endfunction()
