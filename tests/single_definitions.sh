#!/bin/sh
# single_definitions.sh NM OBJECT_LIST: no function with a C name is defined in
# two objects of the emulator. Handlers and routines are declared weak (so that
# a row's operation lands by being defined), and of two weak definitions the
# linker keeps one without a word.
nm=$1 list=$2
dups=$(xargs "$nm" --defined-only < "$list" | awk '($2 == "T" || $2 == "W") && $3 !~ /^_Z/ { print $3 }' | sort | uniq -d)
if [ -n "$dups" ]; then
  echo "defined in more than one object:"
  echo "$dups"
  exit 1
fi
echo "single definitions: 1 passed, 0 failed"
