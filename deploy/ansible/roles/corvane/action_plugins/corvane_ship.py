# Sends files to a host, checks each one there against its SHA-256, and runs one shell command
# beside them: the role's single way of reaching a host.
#
#   corvane_ship:
#     files:                       # sent into a new private directory on the host
#       - {src: /control/path, name: corvane.run, sha256: <64 hex digits>}
#     cmd: 'sh "$CORVANE_SENT/corvane.run" -- -d'
#
# The files go with the connection's own transfer (scp/sftp for ssh) into Ansible's remote
# temporary directory, without the SHA-1 passes of the copy module on both sides. On the host
# each one is then digested (openssl when installed, which uses the processor's SHA
# instructions, else sha256sum); a file whose SHA-256 is not the one given fails the host with a
# message naming both, and the command is not run. The command runs with /bin/sh (with become,
# when the play uses it) and finds the files in $CORVANE_SENT; the directory is removed
# afterwards. The result holds the command's rc, stdout and stderr like the raw module's; the
# task decides with failed_when and changed_when what they mean.
#
# Without a module on the host nothing needs Python there, and a task costs one worker on the
# control machine and a few shell commands on the host. In check mode the action is skipped
# unless the task says check_mode: false (the role does that for commands that change nothing).
from __future__ import absolute_import, division, print_function

__metaclass__ = type

import os
import shlex

from ansible.errors import AnsibleActionFail
from ansible.plugins.action import ActionBase

# Prints "<hex> <name>" for every file named as an argument, from the directory it runs in.
DIGEST_SCRIPT = (
    'for f do '
    'if command -v openssl >/dev/null 2>&1; then s=$(openssl dgst -sha256 -r "$f") || exit 1; '
    'else s=$(sha256sum "$f") || exit 1; fi; '
    'printf "%s %s\\n" "${s%% *}" "$f"; '
    'done'
)


def _digest_command(directory, names):
    return 'cd %s && /bin/sh -c %s corvane-digest %s' % (
        shlex.quote(directory), shlex.quote(DIGEST_SCRIPT), ' '.join(shlex.quote(n) for n in names))


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
    def _damaged(host, files, digests):
        """The message for the first file whose digest on the host is not the one given, or None."""
        for item in files:
            found = digests.get(item['name'])
            if found != item['sha256'].lower():
                return ('%s arrived damaged on %s: its SHA-256 there is %s, not %s as released. '
                        'The transfer failed; nothing was started on this host.'
                        % (item['name'], host, found or 'unreadable', item['sha256'].lower()))
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
        try:
            remote = [self._connection._shell.join_path(sent, item['name']) for item in files]
            for item, path in zip(files, remote):
                self._transfer_file(item['src'], path)
            if remote:
                self._fixup_perms2([sent] + remote)
                check = self._low_level_execute_command(_digest_command(sent, [i['name'] for i in files]))
                digests = {}
                for line in check.get('stdout', '').splitlines():
                    hexdigest, _, name = line.partition(' ')
                    digests[name] = hexdigest
                damaged = self._damaged(task_vars.get('inventory_hostname', 'the host'), files, digests)
                if damaged:
                    result.update(failed=True, msg=damaged, stderr=check.get('stderr', ''))
                    return result
            command = 'CORVANE_SENT=%s /bin/sh -c %s' % (shlex.quote(sent), shlex.quote(cmd))
            result.update(self._low_level_execute_command(command))
            result['sent'] = [item['name'] for item in files]
            result['changed'] = False
            return result
        finally:
            self._remove_tmp_path(sent)
