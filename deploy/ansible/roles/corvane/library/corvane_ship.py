#!/usr/bin/python
# The documentation of the action plugin corvane_ship (action_plugins/corvane_ship.py), which
# does the work on the control machine; ansible-doc and ansible-lint read it here. Run as a module
# on a host, it only says so.
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r'''
module: corvane_ship
short_description: Sends files to a host, checks their SHA-256 there and runs one command, bounded in time
description:
  - Sends each file with the connection's own transfer into Ansible's remote temporary directory,
    checks its SHA-256 on the host (openssl or sha256sum) and, when every file matches, runs the
    command with /bin/sh, the files being in C($CORVANE_SENT).
  - With I(work_base), first refuses that base directory when a directory on its path could be
    changed by another user (owned by someone other than root and the connecting user, or
    writable by others without the sticky bit), then makes a private directory in it with
    mktemp -d (C($CORVANE_WORK)).
  - The command runs under timeout(1) in a process group of its own, with standard input from
    /dev/null; after I(timeout) seconds the group is stopped and the host fails with a message
    naming I(step) and the limit. The script removes the private directory and the files sent
    however it ends, so that Ansible has no temporary directory left to remove.
  - A connection that drops reports the host unreachable with the transport's own message.
  - Skipped in check mode unless the task sets check_mode false.
  - Needs no Python on the host; needs /bin/sh, timeout (coreutils or busybox), and openssl or
    sha256sum.
version_added: "1.0.0"
author: cvinst
options:
  files:
    description: The files to send, each a dictionary with src (on the control machine), name (a plain file name) and sha256.
    type: list
    elements: raw
    default: []
  cmd:
    description: The shell command run on the host.
    type: str
    required: true
  step:
    description: The step's name in messages (the task's name when not given).
    type: str
  timeout:
    description: Seconds the command may run.
    type: int
    default: 1800
  work_base:
    description: An absolute base directory in which a private directory is made for the command.
    type: str
'''

EXAMPLES = r'''
- name: Run the release's cvcheck on the host
  corvane_ship:
    files: [{src: /srv/corvane/cvcheck, name: cvcheck, sha256: "{{ checker_sha256 }}"}]
    cmd: '"$CORVANE_SENT/cvcheck" verify /opt/corvane --json'
    step: Examine
    timeout: 600
'''

RETURN = r'''
rc:
  description: The command's exit status (absent when the role's script itself refused or stopped it).
  returned: when the command ran
  type: int
stdout:
  description: The command's output (with a terminal, its error output too).
  returned: when the command ran
  type: str
work:
  description: The private directory made below work_base, already removed.
  returned: when the command ran
  type: str
sent:
  description: The names of the files sent.
  returned: when the command ran
  type: list
  elements: str
'''

from ansible.module_utils.basic import AnsibleModule


def main():
    module = AnsibleModule(argument_spec=dict(
        files=dict(type='list', elements='raw', default=[]),
        cmd=dict(type='str', required=True),
        step=dict(type='str'),
        timeout=dict(type='int', default=1800),
        work_base=dict(type='str'),
    ))
    module.fail_json(msg='corvane_ship runs as an action plugin on the control machine, not as a module')


if __name__ == '__main__':
    main()
