# SPDX-License-Identifier: Apache-2.0
"""Holds the records that the program writes against the schemas that are installed with it."""
import functools
import json
import os

FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'tools', 'korva', 'schema')
MOST = 60  # of one output; of more, as many that are spread evenly


def load(name):
    """A schema, with those that it refers to in place of the references."""
    with open(os.path.join(FOLDER, name), encoding='ascii') as file:
        schema = json.load(file)
    schema['allOf'] = [load(part['$ref']) for part in schema.get('allOf', [])]
    return schema


@functools.lru_cache(maxsize=None)
def validator_of(verb):
    import jsonschema  # only who writes records needs it
    return jsonschema.Draft202012Validator(load(f'{verb}.json'))


def find_fault(command, out):
    """What is wrong with records that a command wrote; nothing when they are as its schema says, or it wrote none."""
    is_json = len(command) > 1 and (command[1] == 'unwind' or any(word in ('--format=json', '--format=jsonl', '--jsonl') for word in command))
    if not is_json or not out.strip() or '--help' in command:
        return None
    try:
        records = json.loads(out) if '--format=json' in command else [json.loads(line) for line in out.splitlines()]
    except ValueError as error:
        return f'no JSON: {error}'
    validator = validator_of('merge' if '--merge' in command or command[1] == 'record' else command[1])
    for record in records[::len(records) // MOST + 1]:
        for error in validator.iter_errors(record):
            return f'a record is not as its schema says: {error.message}\n  {json.dumps(record)[:2000]}'
    return None
