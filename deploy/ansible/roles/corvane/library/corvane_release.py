#!/usr/bin/python
# The documentation of the action plugin corvane_release (action_plugins/corvane_release.py),
# which does the work on the control machine; ansible-doc and ansible-lint read it here.
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r'''
module: corvane_release
short_description: Checks a host's Corvane settings and the release on the control machine
description:
  - Refuses settings that cannot work (the licence agreement not accepted for present, relative
    or equal directories); such a host is left alone and fails at the end with the reason.
  - A self-extracting file must match the SHA-256 in FILE.sha256 beside it, a distribution
    directory its SHA256SUMS; with a keyring the detached signature must verify with gpgv against
    that keyring alone. A release that fails any of this fails the task, and the role makes that
    end the play before any host is touched.
  - The work is done once per release and ansible-playbook run; a checked .run is unpacked once
    and its description and cvcheck kept in ~/.cache/corvane-ansible.
version_added: "1.0.0"
author: cvinst
options:
  run_file:
    description: The release as a self-extracting file on the control machine.
    type: str
    default: ""
  dist_dir:
    description: The release as a distribution directory on the control machine.
    type: str
    default: ""
  keyring:
    description: A keyring file for gpgv; when set, the signature must verify with it.
    type: str
    default: ""
  settings:
    description: The host's settings (state, accept_license, install_dir, work_dir, eclipse_dir).
    type: dict
    default: {}
'''

EXAMPLES = r'''
- name: Check the release
  corvane_release:
    run_file: /srv/corvane/corvane-10.0.run
    keyring: /srv/corvane/release-key.gpg
    settings: {state: present, accept_license: true, install_dir: /opt/corvane, work_dir: /var/tmp, eclipse_dir: ""}
  register: release
'''

RETURN = r'''
refused:
  description: Why the host's settings cannot work, or empty.
  returned: always
  type: str
name:
  description: The release's name (the .run file's name without .run, or the directory's).
  returned: when the release was checked
  type: str
kind:
  description: editor or plugin, by the package the installer will take.
  returned: when the release was checked
  type: str
list_sha256:
  description: The SHA-256 of the package's file list, which an installation keeps as its dated list.
  returned: when the release was checked
  type: str
payload:
  description: What each host receives (src, name, sha256 for corvane_ship).
  returned: when the release was checked
  type: dict
checker:
  description: The release's cvcheck (src, name, sha256 for corvane_ship).
  returned: when the release was checked
  type: dict
'''

from ansible.module_utils.basic import AnsibleModule


def main():
    module = AnsibleModule(argument_spec=dict(
        run_file=dict(type='str', default=''),
        dist_dir=dict(type='str', default=''),
        keyring=dict(type='str', default='', no_log=False),
        settings=dict(type='dict', default={}),
    ))
    module.fail_json(msg='corvane_release runs as an action plugin on the control machine, not as a module')


if __name__ == '__main__':
    main()
