#!/usr/bin/env bash
# usage: exported_symbols.sh <shared library>
# The library exports its documented interface and nothing else: names in the
# namespace kestrel (with their type information, vtables and thunks), the
# C-linkage mspace functions, the global version classes with their pointer
# `versionInfo`, and the process-wide
# replacement operator new/delete (plain, array, sized, nothrow and the forms
# taking a kestrel::MemoryManager*). A test hook
# (kestrel::internal::...) or an allocator internal (kestrel::mspace_detail::...)
# fails the check, as does any name outside these. Weak definitions that the
# compiler emits for templates of other libraries (std::shared_ptr's control
# blocks, ...) and the linker's own markers are not the library's interface
# and are let through, unless they name a hook.
set -euo pipefail
lib=$1
test -f "$lib" || { echo "no library at $lib"; exit 1; }

symbols=$(nm -D --defined-only "$lib" | awk '{ print $2, $3 }')
test -n "$symbols" || { echo "$lib exports nothing"; exit 1; }

c_api='^(create_mspace|create_mspace_with_base|create_mspace_with_base_ca|destroy_mspace|mspace_[a-z_]+|default_(direct_mmap|mmap|munmap|sbrk)_func)$'
cxx_api='^((typeinfo|typeinfo name|vtable|VTT|construction vtable|guard variable) for |(non-)?virtual thunk to )?(kestrel::|(VersionInfo|VersionInfoImpl|VersionNumber|VersionOptions)(::|$))'
version_globals='^versionInfo$'
operators='^operator (new|delete)(\[\])?\(void\*|^operator (new|delete)(\[\])?\(unsigned long'
hooks='kestrel::(internal|mspace_detail)::'

status=0
while read -r kind mangled; do
  mangled=${mangled#__odr_asan.}  # AddressSanitizer's marker of an exported global
  demangled=$(c++filt -- "$mangled")
  if [[ $demangled =~ $hooks ]]; then
    echo "test hook or internal exported: $demangled"
    status=1
  elif [[ $kind == [VWu] || $mangled =~ ^(__bss_start|_edata|_end|_init|_fini)$ ]]; then
    continue
  elif ! [[ $mangled =~ $c_api || $demangled =~ $cxx_api || $demangled =~ $version_globals || $demangled =~ $operators ]]; then
    echo "exported outside the interface: $demangled"
    status=1
  fi
done <<<"$symbols"
count=$(wc -l <<<"$symbols")
[[ $status == 0 ]] && echo "$count exported names, all in the interface"
exit $status
