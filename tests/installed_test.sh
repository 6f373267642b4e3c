#!/usr/bin/env bash
# Installs the packages of this directory in the bare Debian root that this runs in, as root, runs the
# programs, and purges everything again. scripts/fresh runs it.
set -euo pipefail
cd "$(dirname "$0")"
export DEBIAN_FRONTEND=noninteractive

quietly() {
    "$@" >log 2>&1 || { cat log; exit 1; }
}
ours() {
    find /etc /opt /run /srv /usr /var \( -name cache -o -name log \) -prune -o \
        \( -name 'nav*' -o -name 'lib[Nn]av*' -o -name 'libVel*' \) -print
}

[[ -z $(ours) ]] || { echo "before the installation: $(ours)"; exit 1; }
quietly apt-get install -y -q --no-install-recommends ./*.deb
quietly nav-demo
nav-agent --version
systemd-analyze verify --man=no nav-agent.service 2>log || { cat log; exit 1; }
# Of other units the bare root may have complaints.
if grep nav log; then exit 1; fi
[[ -e /etc/systemd/system/multi-user.target.wants/nav-agent.service ]]
[[ $(stat -c '%U:%G %a' /etc/nav) == "root:nav 750" && -s /etc/default/nav-agent ]]
bash -c '. /usr/share/bash-completion/completions/navctl && complete -p navctl' >/dev/null

# Again over itself, as an upgrade would; the operator's files stay.
echo "# of the operator" >>/etc/default/nav-agent
quietly dpkg --install ./*.deb
grep -q '^# of the operator' /etc/default/nav-agent
quietly apt-get purge -y -q nav-agent navctl nav-simulation libnav1 libnav-dev
[[ -z $(ours) ]] || { echo "after the purge: $(ours)"; exit 1; }
echo "the packages install, run and purge"
