# What scripts/package.sh does with the package in a root that is thrown away. Not for a machine that
# somebody uses.
set -euo pipefail
package=$1
service=/usr/sbin/vel4_watch_folder_service
check=/usr/sbin/vel4_watch_folder_check
examples=/usr/share/doc/vel4-watch-folder/examples

fail() {
  echo "Failed: $*"
  exit 1
}

# Waits for a condition, for at most 20 seconds.
await() {
  local n
  for n in $(seq 200); do
    eval "$1" && return
    sleep 0.1
  done
  fail "waited for: $1"
}

quietly() { "$@" >/tmp/log 2>&1 || { cat /tmp/log; fail "$*"; }; }

quietly dpkg -i "$package"
unit=$(dpkg -L vel4-watch-folder | grep /vel4_watch_folder_service.service$)

echo "  the manual, the unit, the completion"
makewhatis /usr/share/man 2>/dev/null
for page in /usr/share/man/man[58]/vel4_watch_folder*; do
  zcat "$page" >"/tmp/$(basename "$page" .gz)"
done
mandoc -T lint -W style /tmp/vel4_watch_folder*.[58]
verdict=$(systemd-analyze verify "$unit" 2>&1)
[ -z "$verdict" ] || fail "systemd-analyze verify: $verdict"
systemd-analyze security --offline=true --no-pager --threshold=20 "$unit" | tail -n 1
bash -euc '. /usr/share/bash-completion/bash_completion || true
  . /usr/share/bash-completion/completions/vel4_watch_folder_check
  COMP_WORDS=(vel4_watch_folder_check --dir) COMP_CWORD=1 COMP_LINE="${COMP_WORDS[*]}" COMP_POINT=29
  _vel4_watch_folder vel4_watch_folder_check --dir vel4_watch_folder_check
  [ "${COMPREPLY[*]}" = --directory ]' || fail "completion"

echo "  the service without a configuration"
[ "$($service 2>&1)" = "$(printf 'watching \nNo configuration path, exiting')" ] ||
  fail "it says something else"
echo "  the test of the package, with the unit's commands and without its protections"
systemctl() {
  case $1 in
    restart) /usr/sbin/vel4_watch_folder_service >/tmp/service.log 2>&1 & ;;
    reload) MAINPID=$(cat "$pid_file") bash -ec "$(sed -n 's/^ExecReload=//p' "$unit")" ;;
    is-active) kill -0 "$(cat "$pid_file")" ;;
  esac
}
export -f systemctl
export unit pid_file=/run/vel4_watch_folder_service.pid
quietly bash /tmp/delivery
kill -TERM "$(cat "$pid_file")"
await '[ ! -e "$pid_file" ]'

echo "  upgrade, removal, purge"
dpkg-deb -R "$package" /tmp/next
sed -i 's/^Version: .*/&+next/' /tmp/next/DEBIAN/control
quietly dpkg-deb --root-owner-group -b /tmp/next /tmp/next.deb
quietly dpkg -i /tmp/next.deb
cp "$examples/vel4_watch_folder.toml" /etc/
quietly $check
quietly dpkg -r vel4-watch-folder
[ ! -e $service ] && [ -f /etc/vel4_watch_folder.toml ] || fail "removal"
quietly dpkg -P vel4-watch-folder
# What this script made itself.
rm -f /etc/vel4_watch_folder.toml /usr/share/man/mandoc.db
