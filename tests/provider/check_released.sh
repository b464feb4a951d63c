#!/bin/sh
# check_released.sh OBJDUMP CONFIGURATION RELEASED CHECKED: the provider that is shipped has nothing of its checked build.
set -eu
objdump=$1 configuration=$2 released=$3 checked=$4
exported='HoardexMapi[A-Z][a-z]+[A-Z]' operation='^I[A-Z][A-Za-z]+::[A-Z]'
exports() { "$objdump" -p "$1" | grep -cE "\] $exported" || true; }
operations() { strings -a "$1" | grep -cE "$operation" || true; }
# The checked build shows that both patterns find what they look for.
[ "$(exports "$checked")" -gt 0 ] && [ "$(operations "$checked")" -gt 0 ]
[ "$(exports "$released")" -eq 0 ] || { echo "$released exports functions for tests"; exit 1; }
[ "$configuration" != Release ] || [ "$(operations "$released")" -eq 0 ] ||
  { echo "$released holds names of operations"; exit 1; }
