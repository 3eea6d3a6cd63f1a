# Sends files to a host, checks each one there against its SHA-256, and runs one shell command
# beside them: the role's single way of reaching a host.
#
#   corvane_ship:
#     files:                       # sent into a new private directory on the host
#       - {src: /control/path, name: corvane.run, sha256: <64 hex digits>}
#     cmd: 'sh "$CORVANE_SENT/corvane.run" -- -d'
#
# The files go with the connection's own transfer (scp/sftp for ssh) into Ansible's remote
# temporary directory, without the SHA-1 passes of the copy module on both sides. Then one shell
# script on the host digests each of them (openssl when installed, which uses the processor's SHA
# instructions, else sha256sum); a file whose SHA-256 is not the one given fails the host with a
# message naming both, and the command is not run. Otherwise the command runs with /bin/sh (with
# become, when the play uses it) and finds the files in $CORVANE_SENT, which the script removes
# when it ends. The result holds the command's rc, stdout and stderr like the raw module's; the
# task decides with failed_when and changed_when what they mean.
#
# Without a module on the host nothing needs Python there, and a host costs one worker on the
# control machine and three round trips: the temporary directory, the transfer, the script. In
# check mode the action is skipped unless the task says check_mode: false (the role does that
# for commands that change nothing).
from __future__ import absolute_import, division, print_function

__metaclass__ = type

import os
import shlex

from ansible.errors import AnsibleActionFail
from ansible.plugins.action import ActionBase

# Checks each file sent against its SHA-256 and, when all match, runs the command. A file that
# does not match ends the script with DAMAGED and a line "corvane-damaged NAME DIGEST".
DAMAGED = 97
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
"""


def _script(sent, files, cmd, remove, executable):
    """The one shell script run on the host: check the files, run the command, clean up."""
    lines = ['CORVANE_SENT=%s' % shlex.quote(sent), 'export CORVANE_SENT']
    if remove:
        lines.append("trap 'rm -rf -- \"$CORVANE_SENT\"' EXIT")
    lines.append(CHECK_SCRIPT.replace('@DAMAGED@', str(DAMAGED)))
    for item in files:
        lines.append('check %s %s' % (shlex.quote(item['name']), shlex.quote(item['sha256'].lower())))
    if executable and files:
        lines.append('(cd "$CORVANE_SENT" && chmod u+x -- %s) || exit 1'
                     % ' '.join(shlex.quote(item['name']) for item in files))
    lines.append('/bin/sh -c %s' % shlex.quote(cmd))
    return '\n'.join(lines) + '\n'


class ActionModule(ActionBase):
    # The temporary directory is made here, once the arguments have been checked.
    TRANSFERS_FILES = False
    _VALID_ARGS = frozenset(('files', 'cmd'))

    def _check_args(self):
        files = self._task.args.get('files') or []
        cmd = self._task.args.get('cmd')
        if not isinstance(files, list) or not isinstance(cmd, str) or not cmd:
            raise AnsibleActionFail('corvane_ship needs files (a list) and cmd (a shell command)')
        names = set()
        for item in files:
            if not isinstance(item, dict) or not all(item.get(k) for k in ('src', 'name', 'sha256')):
                raise AnsibleActionFail('corvane_ship: every file needs src, name and sha256, not %r' % (item,))
            if '/' in item['name'] or item['name'] in ('.', '..') or item['name'] in names:
                raise AnsibleActionFail('corvane_ship: file name %r is not a plain, distinct name' % item['name'])
            names.add(item['name'])
        return files, cmd

    @staticmethod
    def _damaged(host, files, output):
        """The message for a file that arrived damaged, from the script's report line."""
        for line in output.splitlines():
            if line.startswith('corvane-damaged '):
                _, name, found = (line.split(' ', 2) + ['', ''])[:3]
                expected = next((i['sha256'].lower() for i in files if i['name'] == name), '?')
                return ('%s arrived damaged on %s: its SHA-256 there is %s, not %s as released. '
                        'The transfer failed; nothing was started on this host.' % (name, host, found, expected))
        return None

    def run(self, tmp=None, task_vars=None):
        task_vars = task_vars or {}
        result = super(ActionModule, self).run(tmp, task_vars)
        del tmp
        if self._play_context.check_mode:
            result.update(skipped=True, msg='corvane_ship changes the host; skipped in check mode')
            return result
        files, cmd = self._check_args()
        for item in files:
            if not os.path.isfile(item['src']):
                raise AnsibleActionFail('corvane_ship: %s is not a file on the control machine' % item['src'])

        sent = self._make_tmp_path()
        # Becoming another unprivileged user, that user cannot remove Ansible's directory: then
        # Ansible removes it afterwards; otherwise the script does, saving a round trip.
        unprivileged = self._is_become_unprivileged()
        removed_by_script = False
        try:
            for item in files:
                self._transfer_file(item['src'], self._connection._shell.join_path(sent, item['name']))
            if unprivileged and files:
                self._fixup_perms2([sent] + [self._connection._shell.join_path(sent, i['name']) for i in files])
            script = _script(sent, files, cmd, remove=not unprivileged, executable=not unprivileged)
            removed_by_script = not unprivileged
            done = self._low_level_execute_command('/bin/sh -c %s' % shlex.quote(script))
            damaged = self._damaged(task_vars.get('inventory_hostname', 'the host'), files, done.get('stdout', ''))
            if done.get('rc') == DAMAGED and damaged:
                result.update(failed=True, msg=damaged)
                return result
            result.update(done)
            result['sent'] = [item['name'] for item in files]
            result['changed'] = False
            return result
        finally:
            if not removed_by_script:
                self._remove_tmp_path(sent)
