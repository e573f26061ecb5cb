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
