# Sourced by the scripts that make a Debian tree with mmdebstrap (ARM sysroots, the boot test's
# root). The mirror comes from the machine's own apt configuration, or from AIPQ_DEBIAN_MIRROR;
# mmdebstrap is never left to fall back on a mirror of its own choosing.

# Prints what to hand mmdebstrap as its mirror argument: AIPQ_DEBIAN_MIRROR as given, else the
# machine's deb822 or one-line sources file. Fails with a message when there is none.
aipq_debian_sources() {
  if [ -n "${AIPQ_DEBIAN_MIRROR:-}" ]; then
    echo "$AIPQ_DEBIAN_MIRROR"
    return 0
  fi
  local f
  for f in /etc/apt/sources.list.d/debian.sources /etc/apt/sources.list \
    /etc/apt/sources.list.d/*.sources /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    if grep -qsE '^(URIs:|deb )' "$f"; then
      echo "$f"
      return 0
    fi
  done
  echo "no Debian mirror: the machine's apt configuration names none; set AIPQ_DEBIAN_MIRROR" \
    "to a sources file or a one-line 'deb URI SUITE COMPONENT' entry" >&2
  return 1
}

# The first archive URI of those sources (a file, or a one-line entry), for a retry without the
# security suite; fails when it names none.
aipq_debian_uri() {
  local src=$1 uri
  if [ -f "$src" ]; then
    uri=$(sed -n 's/^URIs: *\([^ ]*\).*/\1/p; s/^deb \(\[[^]]*\] \)\?\([^ ]*\).*/\2/p' "$src" | head -1)
  else
    uri=$(sed -n 's/^deb \(\[[^]]*\] \)\?\([^ ]*\).*/\2/p' <<<"$src" | head -1)
  fi
  [ -n "$uri" ] || { echo "no archive URI in $src" >&2; return 1; }
  echo "$uri"
}
