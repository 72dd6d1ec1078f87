#!/bin/sh
# Every shared library the installed programs load comes from a package that
# zul-agent depends on, directly or not: a Depends line that misses one fails
# here even on a machine where the build already installed that package.
set -eu
closure=$(apt-cache depends --recurse --installed --no-recommends --no-suggests \
  --no-conflicts --no-breaks --no-replaces --no-enhances zul-agent | grep -v '^ ' |
  sed 's/:amd64$//' | sort -u)
libraries=$(ldd /usr/bin/zul-agent /usr/bin/zul-trusted-devices |
  awk '$2 == "=>" && $3 ~ /^\// {print $3}' | sort -u)
# dpkg knows a library under /lib or /usr/lib, whichever its package ships
# (merged /usr): ask for both, once.
owners=$(for lib in $libraries; do echo "$lib"; echo "/usr${lib#/usr}"; echo "${lib#/usr}"; done |
  sort -u | xargs dpkg -S 2>/dev/null || true)
missing=0
for lib in $libraries; do
  name=${lib##*/}
  package=$(printf '%s\n' "$owners" | awk -v n="/$name" 'substr($2, length($2) - length(n) + 1) == n {sub(/:.*/, "", $1); print $1; exit}')
  if [ -z "$package" ] || ! printf '%s\n' "$closure" | grep -qx "$package"; then
    echo "not among zul-agent's dependencies: ${package:-no package} ($lib)"
    missing=1
  fi
done
exit $missing
