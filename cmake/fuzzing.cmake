# SPDX-License-Identifier: MIT
# How everything is compiled for the fuzz targets. The driver has no type information for the checks of virtual tables
# and of function types.
add_compile_options(-O1 -gline-tables-only -fno-omit-frame-pointer
                    -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-sanitize=vptr,function
                    -D__SANITIZE_ADDRESS__)  # as g++ says it
add_link_options(-fsanitize=address,undefined)

# g++ judges the sources; clang has warnings of its own.
target_compile_options(qrn_warnings INTERFACE -w)
# The kernel's headers declare some functions of the C library again; clang wants to see the library's first. Their
# CONTAINING_RECORD looks like a null pointer in use.
target_compile_options(qrn_kernel INTERFACE "SHELL:-include cstdlib" -fno-sanitize=null,object-size)
