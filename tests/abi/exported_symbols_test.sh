#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The dynamic symbol tables of the two libraries hold their public
# interface and nothing else:
#   - libharvo-fw: names in namespace Quelt (never Quelt::detail) with their
#     virtual tables, type information and thunks, the pelx_ functions,
#     g_pAppBase and core_hw_clock; no instance of a standard library or
#     JsonCpp template, no anonymous-namespace helper;
#   - the host platform layer: the platform functions and its host hooks.
# Each library must also export a few names applications rely on, so an
# empty table cannot pass.
#
# Usage: exported_symbols_test.sh LIBHARVO_FW LIBHARVO_HOST_PLATFORM
set -euo pipefail

fw=$1
host=$2
status=0

fail() {
    echo "FAIL: $*"
    status=1
}

# exported LIBRARY: the demangled names of its defined dynamic symbols.
exported() {
    nm -D --defined-only -C "$1" | cut -d' ' -f3-
}

fw_symbols=$(exported "$fw")
echo "$(basename "$fw"): $(wc -l <<<"$fw_symbols") exported symbols"
public='^((typeinfo|typeinfo name|vtable|non-virtual thunk|virtual thunk) (for|to) )?Quelt::|^pelx_|^g_pAppBase$|^core_hw_clock\('
stray=$(grep -Ev "$public" <<<"$fw_symbols" || true)
[[ -z "$stray" ]] || fail "libharvo-fw exports names outside its interface:"$'\n'"$stray"
internal=$(grep -E 'Quelt::detail|anonymous namespace' <<<"$fw_symbols" || true)
[[ -z "$internal" ]] || fail "libharvo-fw exports internals:"$'\n'"$internal"
for name in 'pelx_create_message' 'g_pAppBase' 'Quelt::AppMain(int, char**, Quelt::TCApplication*)' \
    'vtable for Quelt::TCGadgetActivity' 'typeinfo for Quelt::TCApplication' \
    'Quelt::QUELT_INFINITY'; do
    grep -qxF "$name" <<<"$fw_symbols" || fail "libharvo-fw does not export $name"
done

host_symbols=$(exported "$host")
echo "$(basename "$host"): $(wc -l <<<"$host_symbols") exported symbols"
stray=$(grep -Ev '^(__dlog_print|dlog_host_|app_control_|ui_app_|ecore_|ug_)' <<<"$host_symbols" || true)
[[ -z "$stray" ]] || fail "the host platform layer exports names outside the platform subset:"$'\n'"$stray"
for name in __dlog_print dlog_host_set_sink ui_app_main ug_create ecore_main_loop_begin \
    app_control_create; do
    grep -qxF "$name" <<<"$host_symbols" || fail "the host platform layer does not export $name"
done

[[ $status -eq 0 ]] && echo "exported symbols: OK"
exit $status
