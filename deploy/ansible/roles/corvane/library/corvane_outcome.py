#!/usr/bin/python
# The documentation of the action plugin corvane_outcome (action_plugins/corvane_outcome.py),
# which does the work on the control machine; ansible-doc and ansible-lint read it here.
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r'''
module: corvane_outcome
short_description: Works out what a host's examination and installation mean for the corvane role
description:
  - With I(step=decide), reads the examination (cvcheck verify's JSON, the installation
    directory's presence and the plug-in's Eclipse link) and sets the fact C(_corvane_seen), which says
    whether to install, why, and what was there before.
  - With I(step=report), gives the host's message and fails it when the installation, the
    verification after it, or cvcheck said so; changed where the role installed or removed
    (in check mode, would). Installed means the installer ended with status 0 and cvcheck verify
    of the installation passed after it.
  - With --diff, the report shows for present the files that differ or the release that
    replaces another, and for absent what is or would be removed.
  - It reads the results the role registered (_corvane_release, _corvane_found, _corvane_seen,
    _corvane_run) from the host's variables.
version_added: "1.0.0"
author: cvinst
options:
  step:
    description: decide or report.
    type: str
    required: true
    choices: [decide, report]
  state:
    description: corvane_state.
    type: str
    required: true
  force:
    description: corvane_force_reinstall.
    type: bool
    default: false
  eclipse_dir:
    description: corvane_eclipse_dir.
    type: str
    default: ""
  install_dir:
    description: corvane_install_dir, for the messages.
    type: str
    default: ""
'''

EXAMPLES = r'''
- name: Report
  corvane_outcome:
    step: report
    state: present
    install_dir: /opt/corvane
'''

RETURN = r'''
msg:
  description: >-
    The host's outcome, for example "installed release corvane-10.0 in /opt/corvane on ws01
    (was: none); 16 files verified".
  returned: with step=report
  type: raw
diff:
  description: What differs or goes, with --diff.
  returned: with step=report and --diff, where something changes
  type: dict
'''

from ansible.module_utils.basic import AnsibleModule


def main():
    module = AnsibleModule(argument_spec=dict(
        step=dict(type='str', required=True, choices=['decide', 'report']),
        state=dict(type='str', required=True),
        force=dict(type='bool', default=False),
        eclipse_dir=dict(type='str', default=''),
        install_dir=dict(type='str', default=''),
    ))
    module.fail_json(msg='corvane_outcome runs as an action plugin on the control machine, not as a module')


if __name__ == '__main__':
    main()
