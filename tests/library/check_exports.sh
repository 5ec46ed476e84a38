#!/usr/bin/env bash
# Usage: check_exports.sh <libwhitelist.so> <flavour>
set -euo pipefail
lib=$1
flavour=$2

symbols=$(nm -D --defined-only "$lib" | awk '{print $3}')
status=0
for name in orv_whitelist_init whitelist_task_push_fn whitelist_upload_data g_whitelist_context g_vr_event \
            transmit_action_data transmit_rasp_data; do
  if ! grep -qx "$name" <<<"$symbols"; then
    echo "missing dynamic symbol: $name"
    status=1
  fi
done

if [ "$flavour" = i386 ]; then
  if ! file -L "$lib" | grep -q 'ELF 32-bit LSB shared object, Intel 80386'; then
    echo "not a 32-bit i386 shared object: $(file -L "$lib")"
    status=1
  fi
fi
exit $status
