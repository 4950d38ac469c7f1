#!/usr/bin/env bash
# The shared library's binary interface: its SONAME, and no exported symbol
# beyond the public API and the classes plug-ins derive from.
set -euo pipefail
lib="$1"

soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
if [ "$soname" != "liblumiflux.so.0" ]; then
  echo "SONAME is '$soname', expected liblumiflux.so.0"; exit 1
fi

# Defined dynamic symbols, demangled. Template instantiations of the standard
# library are emitted with default visibility by its own headers; they are not
# ours and are left out.
symbols=$(nm -D --defined-only -C "$lib" | awk '{ $1=""; $2=""; sub(/^  /, ""); print }' \
  | grep -v -E '^(std::|__gnu_cxx::|[^(<]*[ &*](std|__gnu_cxx)::|decltype\(auto\) (std|__gnu_cxx)::|typeinfo (name )?for std::|vtable for std::|VTT for std::|guard variable for std::)' \
  | grep -v -E '^(_init|_fini|_edata|_end|__bss_start)$' || true)

bad=$(echo "$symbols" | grep -v -E \
  '^((typeinfo|typeinfo name|vtable|VTT|guard variable) for )?Tevara::Lumiflux::|^operator<<\(std::(basic_)?ostream|^LumifluxManager$|^LumifluxCodecManager$|^((typeinfo|typeinfo name|vtable) for )?H264(Nalu)?Reader|^$' || true)
# Inside the namespace, nothing private may leak.
private=$(echo "$symbols" | grep -E 'anonymous namespace|SysLogBuffer|SysInfoImpl|GlobalsImpl|::Impl::|Player::Impl' || true)

status=0
if [ -n "$bad" ]; then echo "symbols outside the public interface:"; echo "$bad"; status=1; fi
if [ -n "$private" ]; then echo "private symbols exported:"; echo "$private"; status=1; fi
if ! echo "$symbols" | grep -q -E '^Tevara::Lumiflux::LogInit\(\)$'; then echo "LogInit is not exported"; status=1; fi
exit $status
