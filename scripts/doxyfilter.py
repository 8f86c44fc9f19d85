#!/usr/bin/env python3
"""A header or page as Doxygen wants it: doxyfilter.py FILE.

Our comments are plain ones. A comment speaks for the declarations below it down to the next blank line, one behind a
field for that field, the first one for the file. Of links in pages Doxygen knows the file alone, not the heading.
"""
import re
import sys

NO_DECLARATION = ('#', '}', 'namespace', 'extern "C"')
BANNER = re.compile(r'// -{8,}')
TRAILING = re.compile(r'^(\s*[^/\s][^/]*[;,{}])\s+// (.*)$')


def convert(lines):
    comment = []  # the comment that is being read, or that speaks for the lines below it
    is_used = False  # it spoke for a line already
    is_whole = True  # the last declaration has ended
    yield '/** @file'
    head = next((i for i, line in enumerate(lines) if not line.startswith('//')), 0)
    yield from (line[3:] for line in lines[:head])
    yield '*/'
    for line in lines[head:]:
        text = line.strip()
        if BANNER.match(text):
            continue
        if text.startswith('//') and is_whole:
            comment = [] if is_used else comment
            is_used = False
            comment.append(text.replace('//', '///', 1))
            continue
        if not text:
            comment = []
        elif is_whole and (text.startswith('#define') or not text.startswith(NO_DECLARATION)):
            yield from comment
            is_used = True
        code = TRAILING.sub(r'\1', line)
        is_whole = not text or text.startswith('#') or code.rstrip().endswith((';', '{', '}', ',', ':', '*/'))
        is_whole = is_whole and (code.count('(') <= code.count(')') or not code.rstrip().endswith(','))
        if code.rstrip().endswith('{'):
            comment = []
        yield TRAILING.sub(r'\1  ///< \2', line)


def main(name):
    with open(name, encoding='utf-8') as source:
        text = source.read()
    if name.endswith('.md'):
        text = re.sub(r'\[([^\]]*)\]\(#[^)]*\)', r'\1', text)
        sys.stdout.write(re.sub(r'(\]\([^)#]*)#[^)]*\)', r'\1)', text))
    else:
        sys.stdout.write('\n'.join(convert(text.splitlines())) + '\n')


if __name__ == '__main__':
    main(sys.argv[1])
