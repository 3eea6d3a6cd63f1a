# Sends files to a host, checks each one there against its SHA-256, and runs one shell command
# beside them, bounded in time: the role's single way of reaching a host. Its documentation (the
# arguments and what it returns) is in ../library/corvane_ship.py, where ansible-doc finds it.
#
# The files go with the connection's own transfer (scp/sftp for ssh) into Ansible's remote
# temporary directory, without the SHA-1 passes of the copy module on both sides. Then one shell
# script on the host digests each of them (openssl when installed, which uses the processor's SHA
# instructions, else sha256sum); a file whose SHA-256 is not the one given fails the host with a
# message naming both, and the command is not run. With work_base, the script then checks that
# base directory (no directory on its path that another user could change) and makes a new
# private directory there with mktemp -d ($CORVANE_WORK). The command runs with /bin/sh (with
# become, when the play uses it) under timeout(1), in a process group of its own, with standard
# input from /dev/null; when it has not ended after the limit the whole group is stopped. The
# script's exit trap removes the private directory and the files sent, whatever ended it.
#
# Without a module on the host nothing needs Python there, and a step costs four ssh commands:
# Ansible's home directory lookup and temporary directory, the transfer, the script. Ansible's
# own removal of its temporary directory is not needed, as the script removed it, except when
# become switches to another unprivileged user (that user cannot remove the connecting user's
# directory).
from __future__ import absolute_import, division, print_function

__metaclass__ = type

import os
import re
import shlex

from ansible.errors import AnsibleActionFail, AnsibleConnectionFailure
from ansible.plugins.action import ActionBase

# Exit statuses of the script and the report lines that go with them.
DAMAGED = 97  # "corvane-damaged NAME DIGEST": a file does not match its SHA-256
REFUSED = 98  # "corvane-refused MESSAGE": the base directory cannot be used
TIMED_OUT = 124  # timeout(1)'s status when it stopped the command

CHECK_SCRIPT = r"""
digest() {
    if command -v openssl >/dev/null 2>&1; then s=$(openssl dgst -sha256 -r "$1"); else s=$(sha256sum "$1"); fi
    printf '%s' "${s%% *}"
}
check() {
    found=$(cd "$CORVANE_SENT" && digest "$1") || found=unreadable
    if [ "$found" != "$2" ]; then
        printf 'corvane-damaged %s %s\n' "$1" "$found"
        exit @DAMAGED@
    fi
}
refuse() {
    printf 'corvane-refused %s\n' "$*"
    exit @REFUSED@
}
"""

# private_dir BASE: refuses BASE when another user could rename or replace what is made there: a
# directory on its physical path owned by someone other than root, the user running this or the
# user sudo came from, or writable by others without the sticky bit. The path that exists is
# checked before BASE is made (when missing) and the whole path again after; then the private
# directory is made in it.
PRIVATE_DIR_SCRIPT = r"""
check_path() {
    d=$1
    set -f
    while :; do
        # shellcheck disable=SC2046
        set -- $(ls -ldn -- "$d")
        case $3 in
            0 | "$me" | "${SUDO_UID:-0}") ;;
            *) refuse "corvane_work_dir: $d is owned by user $3, neither root nor the connecting user, who could replace the private directory the role makes in $base. Choose a directory only root or you can change (corvane_work_dir=DIR)." ;;
        esac
        case $1 in
            ????????w[!tT]*) refuse "corvane_work_dir: $d is writable by others without the sticky bit (mode $1): another user could replace the private directory the role makes in $base. Choose a directory only root or you can change (corvane_work_dir=DIR)." ;;
        esac
        [ "$d" != / ] || break
        d=${d%/*}
        [ -n "$d" ] || d=/
    done
    set +f
}
private_dir() {
    base=$1
    me=$(id -u)
    e=$base
    while ! [ -d "$e" ]; do
        e=${e%/*}
        [ -n "$e" ] || e=/
    done
    check_path "$(cd -P -- "$e" && pwd -P)"
    (umask 022 && mkdir -p -- "$base") 2>/dev/null
    real=$(cd -P -- "$base" 2>/dev/null && pwd -P) || refuse "corvane_work_dir: $base is not a directory that can be made or entered."
    check_path "$real"
    CORVANE_WORK=$(umask 077 && mktemp -d "$real/corvane.XXXXXXXXXX") || refuse "cannot make a private directory in $real (corvane_work_dir)."
    printf 'corvane-work %s\n' "$CORVANE_WORK"
}
"""


def _script(sent, files, cmd, remove, executable, work_base, limit):
    """The one shell script run on the host: check the files, run the command, clean up."""
    lines = ['CORVANE_SENT=%s' % shlex.quote(sent), 'CORVANE_WORK=', 'export CORVANE_SENT CORVANE_WORK',
             'corvane_end() {', '    [ -z "$CORVANE_WORK" ] || rm -rf -- "$CORVANE_WORK"']
    if remove:
        lines.append('    rm -rf -- "$CORVANE_SENT"')
    lines += ['}', 'trap corvane_end EXIT', "trap 'exit 129' HUP", "trap 'exit 130' INT", "trap 'exit 143' TERM"]
    lines.append(CHECK_SCRIPT.replace('@DAMAGED@', str(DAMAGED)).replace('@REFUSED@', str(REFUSED)))
    for item in files:
        lines.append('check %s %s' % (shlex.quote(item['name']), shlex.quote(item['sha256'].lower())))
    if executable and files:
        lines.append('(cd "$CORVANE_SENT" && chmod u+x -- %s) || exit 1'
                     % ' '.join(shlex.quote(item['name']) for item in files))
    lines.append('command -v timeout >/dev/null 2>&1 || refuse "this host has no timeout program (coreutils or '
                 'busybox), which the role needs to bound its commands in time."')
    if work_base:
        lines.append(PRIVATE_DIR_SCRIPT)
        lines.append('private_dir %s' % shlex.quote(work_base))
    lines.append('timeout -k 10 %d /bin/sh -c %s </dev/null' % (limit, shlex.quote(cmd)))
    lines.append('status=$?')
    lines.append('exit "$status"')
    return '\n'.join(lines) + '\n'


def _report(output, tag):
    """The text of the script's report line 'corvane-TAG ...', or None."""
    for line in output.splitlines():
        if line.startswith('corvane-%s ' % tag):
            return line[len(tag) + 9:].rstrip('\r')
    return None


def _seconds(limit):
    if limit % 3600 == 0:
        return '%d h' % (limit // 3600)
    if limit % 60 == 0:
        return '%d min' % (limit // 60)
    return '%d s' % limit


class ActionModule(ActionBase):
    # The temporary directory is made here, once the arguments have been checked.
    TRANSFERS_FILES = False
    _VALID_ARGS = frozenset(('files', 'cmd', 'step', 'timeout', 'work_base'))

    def _check_args(self):
        args = self._task.args
        files = args.get('files') or []
        cmd = args.get('cmd')
        if not isinstance(files, list) or not isinstance(cmd, str) or not cmd:
            raise AnsibleActionFail('corvane_ship needs files (a list) and cmd (a shell command)')
        names = set()
        for item in files:
            if not isinstance(item, dict) or not all(item.get(k) for k in ('src', 'name', 'sha256')):
                raise AnsibleActionFail('corvane_ship: every file needs src, name and sha256, not %r' % (item,))
            if '/' in item['name'] or item['name'] in ('.', '..') or item['name'] in names:
                raise AnsibleActionFail('corvane_ship: file name %r is not a plain, distinct name' % item['name'])
            names.add(item['name'])
        try:
            limit = int(args.get('timeout') or 1800)
        except (TypeError, ValueError):
            raise AnsibleActionFail('corvane_ship: timeout must be a number of seconds, not %r' % args.get('timeout'))
        if limit < 1:
            raise AnsibleActionFail('corvane_ship: timeout must be at least 1 second, not %d' % limit)
        work_base = args.get('work_base') or ''
        if work_base and not work_base.startswith('/'):
            raise AnsibleActionFail('corvane_ship: work_base must be an absolute path, not %r' % work_base)
        return files, cmd, limit, work_base

    @staticmethod
    def _damaged(host, files, output):
        """The message for a file that arrived damaged, from the script's report line."""
        found = _report(output, 'damaged')
        if found is None:
            return None
        name, digest = (found.split(' ', 1) + [''])[:2]
        expected = next((i['sha256'].lower() for i in files if i['name'] == name), '?')
        return ('%s arrived damaged on %s: its SHA-256 there is %s, not %s as released. '
                'The transfer failed; nothing was started on this host.' % (name, host, digest, expected))

    def run(self, tmp=None, task_vars=None):
        task_vars = task_vars or {}
        result = super(ActionModule, self).run(tmp, task_vars)
        del tmp
        if self._play_context.check_mode:
            result.update(skipped=True, msg='corvane_ship changes the host; skipped in check mode')
            return result
        files, cmd, limit, work_base = self._check_args()
        for item in files:
            if not os.path.isfile(item['src']):
                raise AnsibleActionFail('corvane_ship: %s is not a file on the control machine' % item['src'])
        host = task_vars.get('inventory_hostname', 'the host')
        step = self._task.args.get('step') or self._task.get_name()

        try:
            sent = self._make_tmp_path()
            # Becoming another unprivileged user, that user cannot remove Ansible's directory: then
            # Ansible removes it afterwards; otherwise the script does, saving a round trip.
            unprivileged = self._is_become_unprivileged()
            for item in files:
                self._transfer_file(item['src'], self._connection._shell.join_path(sent, item['name']))
            if unprivileged and files:
                self._fixup_perms2([sent] + [self._connection._shell.join_path(sent, i['name']) for i in files])
            script = _script(sent, files, cmd, not unprivileged, not unprivileged, work_base, limit)
            if not unprivileged:
                # From here on the script removes the directory, whatever happens to it.
                self._connection._shell.tmpdir = None
            done = self._low_level_execute_command('/bin/sh -c %s' % shlex.quote(script))
        except AnsibleConnectionFailure:
            # The host is unreachable: Ansible's clean-up over the same connection would only
            # replace the transport's message by its own failure.
            self._connection._shell.tmpdir = None
            raise
        output = done.get('stdout', '')
        work = _report(output, 'work')
        rc = done.get('rc')
        if rc == DAMAGED and self._damaged(host, files, output):
            result.update(failed=True, msg=self._damaged(host, files, output))
            return result
        if rc == REFUSED and _report(output, 'refused') is not None:
            result.update(failed=True, msg='%s on %s: %s Nothing was started on this host.'
                          % (step, host, _report(output, 'refused')))
            return result
        if rc in (TIMED_OUT, 128 + 9):
            result.update(failed=True, msg='%s on %s did not end within corvane_timeout (%s); it was stopped, and '
                                           'what the role had put on the host was removed%s.'
                                           % (step, host, _seconds(limit), ' (%s)' % work if work else ''))
            result['stdout'] = output
            return result
        done['stdout_lines'] = [re.sub(r'\r$', '', line) for line in output.splitlines()]
        result.update(done)
        result['work'] = work or ''
        result['sent'] = [item['name'] for item in files]
        result['changed'] = False
        return result
