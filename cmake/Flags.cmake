# The flags that every target of the project is compiled and linked with.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Programs find the libraries relative to themselves, so that both the build tree and an
# installed one can be moved.
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN;$ORIGIN/../lib")

foreach(language C CXX)
  set(CMAKE_${language}_FLAGS_RELEASE "-O2 -g1 -DNDEBUG")
  set(CMAKE_${language}_FLAGS_DEBUG "-O1 -g1 -fno-omit-frame-pointer")
endforeach()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -fno-semantic-interposition)
if(VANTRACE_WERROR)
  add_compile_options(-Werror)
endif()
add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack -Wl,--as-needed)
include(CheckPIESupported)
check_pie_supported()

if(VANTRACE_SANITIZE)
  add_compile_options(-fsanitize=${VANTRACE_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VANTRACE_SANITIZE})
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
  if(VANTRACE_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)
  endif()
elseif(VANTRACE_COVERAGE)
  # Counts are in mapped files while they are made, for tests fork and kill processes; and they have
  # their place whatever the environment says, for tests clear it.
  set(counts ${PROJECT_BINARY_DIR}/native-counts/%4m%c.profraw)
  add_compile_options(-O0 -fprofile-instr-generate=${counts} -fcoverage-mapping
    "SHELL:-mllvm -runtime-counter-relocation")
  add_link_options(-fprofile-instr-generate)
else()
  add_compile_options(-fstack-protector-strong -fstack-clash-protection)
  add_compile_definitions($<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
endif()
