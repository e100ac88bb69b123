# SPDX-License-Identifier: MIT
# Headers of the standard library and of the test framework that nearly every source file reads, compiled once.
# For builds without optimization, where reading headers is most of the time: with it the compiler forgets which
# lines are the library's and warns of them. Sources still include all they use and build without.
set(QRN_PRECOMPILED
    <algorithm> <array> <atomic> <chrono> <condition_variable> <cstdint> <cstdio> <cstring> <deque> <filesystem>
    <fstream> <functional> <map> <memory> <mutex> <optional> <random> <set> <span> <sstream> <stdexcept> <string>
    <string_view> <system_error> <thread> <unordered_map> <utility> <vector>)
option(QRN_PRECOMPILE "compile common headers once" OFF)

# qrn_precompile(TARGET...): each with headers of its own, which pays from about eight files on.
function(qrn_precompile)
  if(QRN_PRECOMPILE)
    foreach(target ${ARGN})
      target_precompile_headers(${target} PRIVATE ${QRN_PRECOMPILED})
    endforeach()
  endif()
endfunction()
