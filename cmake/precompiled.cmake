# The headers that most sources of a kind include, parsed once. They only save time: the debug preset does without them,
# so that every source has to name what it uses.
set(product_headers <algorithm> <array> <charconv> <chrono> <cmath> <cstdint> <cstring> <fmt/format.h> <functional> <map>
                    <memory> <optional> <span> <string> <string_view> <unordered_map> <utility> <vector>)
set(simulator_headers ${product_headers} <boost/asio/ip/tcp.hpp> <boost/asio/ssl/context.hpp> <boost/beast/core.hpp>
                      <boost/beast/http.hpp>)
set(test_headers ${product_headers} <filesystem> <fstream> <gmock/gmock.h> <gtest/gtest.h> <nlohmann/json.hpp> <random>
                 <set> <sstream>)

# precompile(TARGET OWNER HEADER...): parses the headers once, for OWNER; every further TARGET with the same flags
# borrows the result.
function(precompile target owner)
  if(target STREQUAL owner)
    target_precompile_headers(${target} PRIVATE ${ARGN})
  else()
    target_precompile_headers(${target} REUSE_FROM ${owner})
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT CMAKE_DISABLE_PRECOMPILE_HEADERS)
    # False alarms in the standard library of GCC 12, which no longer sees that these headers are the system's.
    target_compile_options(${target} PRIVATE -Wno-array-bounds -Wno-maybe-uninitialized -Wno-stringop-overflow
                                             -Wno-stringop-overread)
  endif()
endfunction()
