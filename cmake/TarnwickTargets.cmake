# Compiler settings shared by every target of our own. Third-party headers come
# in through imported targets (system include paths), so -Werror applies to
# our code only.

if(TARNWICK_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(TARNWICK_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT TARNWICK_SANITIZE STREQUAL "")
  message(FATAL_ERROR "TARNWICK_SANITIZE must be empty, 'address' or 'thread'")
endif()

# Warnings as errors and hardening: stack protector, _FORTIFY_SOURCE (needs
# optimisation), PIE (CMAKE_POSITION_INDEPENDENT_CODE + check_pie_supported)
# and full RELRO.
function(tarnwick_target_defaults target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Werror
    -fstack-protector-strong)
  if(TARNWICK_SANITIZE STREQUAL "")
    target_compile_definitions(${target} PRIVATE
      $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
  endif()
  target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now)
endfunction()

# Qt generates code of its own beside a target (the QML cache loader and compiled QML in
# <target>_qmlcache, compiled resources in <target>_resources_N) and builds it with the target's
# options copied over, -Werror included. That code is not ours: its warnings stay warnings. Under
# TSan, Qt's global statics use std::atomic_thread_fence, which GCC reports with -Wtsan; that
# report is about Qt's header, so it is switched off for the generated code only.
function(tarnwick_relax_generated_code target)
  get_target_property(dir ${target} SOURCE_DIR)
  get_property(targets DIRECTORY "${dir}" PROPERTY BUILDSYSTEM_TARGETS)
  foreach(generated IN LISTS targets)
    if(generated MATCHES "^${target}_(qmlcache|resources_[0-9]+)$")
      target_compile_options(${generated} PRIVATE -Wno-error)
      if(TARNWICK_SANITIZE STREQUAL "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(${generated} PRIVATE -Wno-tsan)
      endif()
    endif()
  endforeach()
endfunction()

# A test is a QtTest executable run by CTest. Every test gets its own HOME and
# XDG directories under the build tree, so nothing ever touches the real home
# folder, and finds the shared test data through TARNWICK_SHARED_DIR.
function(tarnwick_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;ENV" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  tarnwick_target_defaults(${name})
  target_link_libraries(${name} PRIVATE Qt6::Test ${ARG_LIBS})
  target_include_directories(${name} PRIVATE "${CMAKE_SOURCE_DIR}/tests/support")
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/tests")
  add_test(NAME ${name} COMMAND ${name})
  tarnwick_test_environment(${name} ${ARG_ENV})
  if(ARG_TIMEOUT)
    set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
  else()
    set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  endif()
endfunction()

# The environment every test runs in (also for tests added with add_test).
function(tarnwick_test_environment test)
  set(home "${CMAKE_BINARY_DIR}/test-home/${test}")
  file(MAKE_DIRECTORY "${home}/data" "${home}/config" "${home}/state" "${home}/cache" "${home}/runtime")
  file(CHMOD "${home}/runtime" DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
  set_property(TEST ${test} APPEND PROPERTY ENVIRONMENT
    "HOME=${home}"
    "XDG_DATA_HOME=${home}/data"
    "XDG_CONFIG_HOME=${home}/config"
    "XDG_STATE_HOME=${home}/state"
    "XDG_CACHE_HOME=${home}/cache"
    "XDG_RUNTIME_DIR=${home}/runtime"
    "QT_QPA_PLATFORM=offscreen"
    "TARNWICK_SHARED_DIR=${TARNWICK_SHARED_DIR}"
    "TARNWICK_BUILD_DIR=${CMAKE_BINARY_DIR}"
    # The development backend opens nothing and shows no notifications.
    "KOVRIT_DEV_OPEN=0"
    "KOVRIT_DEV_NOTIFY=0"
    ${ARGN})
endfunction()

# A benchmark is a Google Benchmark executable under <build>/bench.
function(tarnwick_add_bench name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  tarnwick_target_defaults(${name})
  target_link_libraries(${name} PRIVATE benchmark::benchmark ${ARG_LIBS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bench")
endfunction()
