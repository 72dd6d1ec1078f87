#!/bin/sh
# Every shared library the installed programs load comes from a package that
# zul-agent depends on, directly or not: a Depends line that misses one fails
# here even on a machine where the build already installed that package.
set -eu
closure=$(apt-cache depends --recurse --installed --no-recommends --no-suggests \
  --no-conflicts --no-breaks --no-replaces --no-enhances zul-agent | grep -v '^ ' |
  sed 's/:amd64$//' | sort -u)
missing=0
for lib in $(ldd /usr/bin/zul-agent /usr/bin/zul-trusted-devices | awk '$2 == "=>" && $3 ~ /^\// {print $3}' | sort -u); do
  owner=$(dpkg -S "$lib" 2>/dev/null || dpkg -S "/usr$lib" 2>/dev/null ||
    dpkg -S "${lib#/usr}" 2>/dev/null || echo "?: $lib")
  package=${owner%%:*}
  if ! printf '%s\n' "$closure" | grep -qx "$package"; then
    echo "not among zul-agent's dependencies: $package ($lib)"
    missing=1
  fi
done
exit $missing
