#!/usr/bin/python3
"""Checks every action reply that the tests logged against docs/api.yaml.

check_replies.py API_YAML LOG_DIR

LOG_DIR holds files of JSON lines {"url", "status", "body"} (the request target, the HTTP
status, the reply text), written by the system tests' HTTP client and by the browser tests.
Each reply must have a status that its action documents, and a 200 reply's JSON must match
that action's schema. The document's own examples must match their schemas too.
"""
import collections
import json
import os
import sys

import yaml
from jsonschema import Draft202012Validator


def dereference(node, doc):
    """The node with every local $ref replaced by its target; siblings of a $ref add to it."""
    if isinstance(node, list):
        return [dereference(n, doc) for n in node]
    if not isinstance(node, dict):
        return node
    if '$ref' in node:
        target = doc
        for part in node['$ref'].lstrip('#/').split('/'):
            target = target[part]
        target = dereference(target, doc)
        rest = {k: dereference(v, doc) for k, v in node.items() if k != '$ref'}
        return {'allOf': [target, rest]} if rest else target
    return {k: dereference(v, doc) for k, v in node.items()}


def action_of(target):
    """The action name as the server takes it: after the target's last "/", before "?"."""
    return target[target.rfind('/') + 1:].split('?', 1)[0]


def main(api_path, log_dir):
    with open(api_path) as f:
        raw = yaml.safe_load(f)
    if not str(raw.get('openapi', '')).startswith('3.1'):
        sys.exit(f'{api_path}: not an OpenAPI 3.1 document')
    doc = dereference(raw, raw)
    faults = []

    examples = 0
    for path, item in doc['paths'].items():
        for method, op in item.items():
            for status, response in op.get('responses', {}).items():
                for kind, content in response.get('content', {}).items():
                    validator = Draft202012Validator(content.get('schema', {}))
                    for name, example in content.get('examples', {}).items():
                        examples += 1
                        for e in validator.iter_errors(example['value']):
                            faults.append(f'{path} {status} example {name}: {e.message}')
            body = op.get('requestBody', {}).get('content', {}).get('application/json', {})
            if 'example' in body:
                examples += 1
                for e in Draft202012Validator(body.get('schema', {})).iter_errors(body['example']):
                    faults.append(f'{path} request example: {e.message}')

    counts = collections.Counter()
    statuses = collections.Counter()
    unanswered = 0
    for name in sorted(os.listdir(log_dir)) if os.path.isdir(log_dir) else []:
        with open(os.path.join(log_dir, name), encoding='utf-8', errors='replace') as f:
            for number, line in enumerate(f, 1):
                where = f'{name}:{number}'
                record = json.loads(line)
                status = record['status']
                if status == 0:  # no reply at all: the client gave up or the connection was cut
                    unanswered += 1
                    continue
                action = action_of(record['url'])
                path = '/action/device/' + action
                op = doc['paths'].get(path, doc['paths']['/action/device/{command}'])['post']
                response = op['responses'].get(str(status)) or op['responses'].get(f'{status // 100}XX')
                if not response:
                    faults.append(f'{where}: {action} answered HTTP {status}, which it does not document')
                    continue
                counts[action] += 1
                statuses[status] += 1
                content = response.get('content', {})
                if 'application/json' not in content:
                    continue
                try:
                    reply = json.loads(record['body'])
                except ValueError:
                    faults.append(f'{where}: {action} answered text that is not JSON: {record["body"][:200]!r}')
                    continue
                errors = list(Draft202012Validator(content['application/json']['schema']).iter_errors(reply))
                if errors:
                    faults.append(f'{where}: {action} reply {json.dumps(reply)[:300]} does not match: '
                                  + '; '.join(e.message for e in errors[:3]))

    total = sum(counts.values())
    print(f'{total} replies of {len(counts)} actions checked against {api_path} '
          f'(HTTP {dict(sorted(statuses.items()))}; {unanswered} requests without a reply skipped); '
          f'{examples} examples checked')
    for fault in faults[:40]:
        print('MISMATCH', fault)
    if faults:
        print(f'{len(faults)} mismatches')
        return 1
    return 0


if __name__ == '__main__':
    if len(sys.argv) != 3:
        sys.exit('usage: check_replies.py API_YAML LOG_DIR')
    sys.exit(main(sys.argv[1], sys.argv[2]))
