#!/usr/bin/env bash
# Static check of the 32-bit glidewell.dll, which no Wine on this machine can
# run: (1) its export table holds exactly the ten dfrg_ names, undecorated;
# (2) each export pops its own arguments (__stdcall: "ret $0xN", N = 4 x the
# argument count) and the argument-less ones use a plain "ret"; (3) an i686
# host compiled against include/glidewell/dfrg.h links against an import
# library that dlltool -k made from the decorated names, so the header's
# declarations and the DLL's names agree; (4) it needs no DLL that Windows
# lacks (the mingw runtime: libstdc++-6.dll, libgcc_s_*.dll, libwinpthread-1.dll);
# (5) the glidewell command built beside it needs none either and imports
# only names the DLL exports.
#
#   check_i686_dll.sh DLL INCLUDE_DIR WORK_DIR
# Exit status 77: skipped (DLL not built, or no i686 mingw-w64 tools).
set -uo pipefail
[ $# -eq 3 ] || { echo "usage: $0 DLL INCLUDE_DIR WORK_DIR" >&2; exit 2; }
dll="$1" include="$2" work="$3"
T=i686-w64-mingw32

if [ ! -f "$dll" ]; then
  echo "check_i686_dll: skipped, $dll is not built (cmake --preset win32 && cmake --build --preset win32)"
  exit 77
fi
for tool in objdump dlltool gcc; do
  command -v "$T-$tool" >/dev/null || { echo "check_i686_dll: skipped, no $T-$tool"; exit 77; }
done

# Each export with its argument bytes.
declare -A ARGS=(
  [dfrg_initialize]=8 [dfrg_deinitialize]=0 [dfrg_createDefragInstance]=0 [dfrg_deleteDefragInstance]=4
  [dfrg_startDefrag]=4 [dfrg_stopDefrag]=4 [dfrg_pauseDefrag]=8 [dfrg_isRunning]=4
  [dfrg_getLastErrorCode]=0 [dfrg_getLastErrorMessage]=0)

fail=0
bad() { echo "check_i686_dll: FAILED: $*"; fail=1; }

headers="$("$T-objdump" -p "$dll")" || { bad "objdump -p cannot read $dll"; exit 1; }
grep -q 'file format pei-i386' <<<"$("$T-objdump" -f "$dll")" || bad "$dll is not a 32-bit x86 PE file"

# (1) The name table: "[   5] dfrg_initialize" lines after "[Ordinal/Name Pointer] Table".
names="$(awk '/^\[Ordinal\/Name Pointer\] Table/ { on = 1; next } on && NF == 0 { exit }
              on { sub(/^[ \t]*\[ *[0-9]+\] /, ""); print }' <<<"$headers")"
expected="$(printf '%s\n' "${!ARGS[@]}" | sort)"
if [ "$(sort <<<"$names")" != "$expected" ]; then
  bad "the export names differ from the ten dfrg_ functions:"
  diff <(echo "$expected") <(sort <<<"$names") | sed 's/^/    /'
fi

# (2) The code at each export's address. Export index -> RVA from the export
# address table; the disassembly is split into one block per symbol.
base=$((16#$(awk '$1 == "ImageBase" { print $2 }' <<<"$headers")))
declare -A RVA
while read -r idx rva; do RVA[$idx]=$rva; done < <(
  awk '/^Export Address Table -- Ordinal Base/ { on = 1; next } on && NF == 0 { exit }
       on { gsub(/[\[\]]/, " "); print $1, $4 }' <<<"$headers")
declare -A INDEX
while read -r idx name; do INDEX[$name]=$idx; done < <(
  awk '/^\[Ordinal\/Name Pointer\] Table/ { on = 1; next } on && NF == 0 { exit }
       on { gsub(/[\[\]]/, " "); print $1, $2 }' <<<"$headers")
disasm="$("$T-objdump" -d --no-show-raw-insn "$dll")"
for name in "${!ARGS[@]}"; do
  idx="${INDEX[$name]:-}"
  [ -n "$idx" ] && [ -n "${RVA[$idx]:-}" ] || continue  # already reported as missing
  addr="$(printf '%08x' $((base + 16#${RVA[$idx]})))"
  body="$(awk -v start="$addr <" 'index($0, start) == 1 { on = 1; next } on && NF == 0 { exit } on { print }' <<<"$disasm")"
  if [ -z "$body" ]; then
    bad "$name: no function starts at its export address 0x$addr (is the DLL stripped?)"
    continue
  fi
  rets="$(grep -oE '\sret[lw]?(\s+\$0x[0-9a-f]+)?\s*$' <<<"$body" | sed -E 's/^\s+//; s/\s+$//; s/\s+/ /g' | sort -u)"
  n=${ARGS[$name]}
  if [ "$n" -eq 0 ]; then want="ret"; else want="ret \$0x$(printf '%x' "$n")"; fi
  if [ -z "$rets" ]; then
    bad "$name: no ret instruction in its code"
  elif [ "$rets" != "$want" ]; then
    bad "$name: returns with '$(tr '\n' ',' <<<"$rets" | sed 's/,$//')', expected '$want' ($n argument bytes)"
  fi
done

# (4) Only system DLLs are imported.
runtime="$(awk '/DLL Name:/ { print $3 }' <<<"$headers" | grep -i '^lib' | tr '\n' ' ')"
[ -z "$runtime" ] || bad "the DLL needs mingw runtime DLLs that Windows does not have: $runtime(link with -static)"

# (3) An i686 host linked against a dlltool -k import library.
rm -rf "$work" && mkdir -p "$work"
{
  echo "LIBRARY glidewell.dll"
  echo "EXPORTS"
  for name in "${!ARGS[@]}"; do echo "    $name@${ARGS[$name]}"; done
} >"$work/decorated.def"
cat >"$work/caller.c" <<'C'
#include <glidewell/dfrg.h>
int main(void) {
  if (!dfrg_initialize(L"C:\\glidewell\\", "")) return 1;
  DfrgHandle h = dfrg_createDefragInstance();
  dfrg_startDefrag(h);
  dfrg_pauseDefrag(h, 1);
  dfrg_pauseDefrag(h, 0);
  while (dfrg_isRunning(h)) dfrg_stopDefrag(h);
  int code = dfrg_getLastErrorCode();
  const char* message = dfrg_getLastErrorMessage();
  dfrg_deleteDefragInstance(h);
  dfrg_deinitialize();
  return code != 0 && message[0] != '\0';
}
C
if ! "$T-dlltool" -k -d "$work/decorated.def" -D glidewell.dll -l "$work/libglidewell.a" 2>"$work/dlltool.log"; then
  bad "dlltool -k could not make an import library: $(cat "$work/dlltool.log")"
elif ! "$T-gcc" -std=c99 -Wall -Werror -I"$include" "$work/caller.c" -L"$work" -lglidewell -o "$work/caller.exe" 2>"$work/link.log"; then
  bad "an i686 caller does not link against the dlltool -k import library:"
  sed 's/^/    /' "$work/link.log"
else
  # The caller must import the undecorated names from glidewell.dll.
  imports="$("$T-objdump" -p "$work/caller.exe" | awk '/DLL Name: glidewell.dll/ { on = 1; next } on && /DLL Name:/ { exit } on && NF >= 2 { print $NF }' | grep '^dfrg_' | sort)"
  [ "$imports" = "$expected" ] || bad "the caller imports $(echo $imports) instead of the ten undecorated names"
fi

# (5) The glidewell command built beside the DLL: it needs no runtime DLL
# either, and asks glidewell.dll only for names the DLL exports.
exe="$(dirname "$dll")/glidewell.exe"
if [ -f "$exe" ]; then
  exe_headers="$("$T-objdump" -p "$exe")"
  runtime="$(awk '/DLL Name:/ { print $3 }' <<<"$exe_headers" | grep -i '^lib' | tr '\n' ' ')"
  [ -z "$runtime" ] || bad "glidewell.exe needs mingw runtime DLLs: $runtime"
  used="$(awk '/DLL Name: glidewell.dll/ { on = 1; next } on && /DLL Name:/ { exit } on && NF >= 2 { print $NF }' <<<"$exe_headers" | grep '^dfrg_' | sort)"
  [ -n "$used" ] || bad "glidewell.exe imports nothing from glidewell.dll"
  unknown="$(comm -23 <(echo "$used") <(echo "$expected"))"
  [ -z "$unknown" ] || bad "glidewell.exe imports names the DLL does not export: $(echo $unknown)"
fi

[ "$fail" -eq 0 ] || exit 1
echo "check_i686_dll: $dll exports the ten dfrg_ functions undecorated, with __stdcall returns; an i686 caller links"
