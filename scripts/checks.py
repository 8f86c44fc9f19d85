#!/usr/bin/env python3
"""The rules of the house as tests. Exit 1 names each breach.

checks.py tree | headers | documents | snippets | symbols LIBRARY [--update]
"""
import ast
import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
PUBLIC = ('archiving', 'utils')

# The sources that log; every other one returns a value and leaves the message to them.
LOG_SOURCES = {
    'archiving/archivesender', 'utils/audioutil', 'utils/jpegextractor', 'utils/imageobject', 'utils/mpeg4util',
    'utils/encodermp3', 'utils/mp3demuxer', 'utils/audiotranscoder', 'utils/ffmpegdemuxer', 'utils/ffmpegmuxer',
    'utils/sharedthumb', 'utils/gifprocess', 'utils/ffmpegadapter', 'utils/audiomixer',
}
LONG_SOURCES = {'utils/mpeg4util', 'utils/ffmpegmuxer', 'utils/audiomixer'}  # their log lines must stand in that file

# What each folder may include of the others.
LAYERS = {
    'platform': ('platform/',),
    'platform/local': ('platform/',),
    'utils': ('platform/', 'utils/'),
    'archiving': ('platform/', 'utils/', 'archiving/'),
    'tools': ('platform/', 'utils/', 'archiving/', 'tools/'),
    'examples': ('platform/', 'utils/', 'archiving/'),
}

# FFmpeg calls that belong to the lock wrappers, and the files that may hold them.
LOCKED_CALLS = re.compile(r'\b(avcodec_open2|avcodec_close|avcodec_free_context|avformat_free_context|'
                          r'avcodec_register_all|avfilter_register_all|av_register_all)\s*\(')
LOCK_HOLDERS = {'utils/mpeg4util.cpp', 'utils/internal/ffcompat.cpp'}

INSTALLED = re.compile(r'(README|CHANGELOG|SECURITY)\.md$|docs(/|$)')  # the documents that are
FENCE = re.compile(r'^```(\w*)\n(.*?)^```', flags=re.M | re.S)
FORMAT_ARGUMENT = {'VY_LOG': 1, 'VY_FAIL_IF': 3, 'VyPrintf': 6}


def sources(*folders):
    for folder in folders:
        for path in sorted((ROOT / folder).rglob('*')):
            if path.suffix in ('.h', '.cpp'):
                yield path, path.relative_to(ROOT).as_posix()


def layer_of(name):
    return next((layer for layer in sorted(LAYERS, key=len, reverse=True) if name.startswith(layer + '/')), None)


def check_layers(name, text):
    allowed = LAYERS[layer_of(name)]
    for included in re.findall(r'#include "([^"]+)"', text):
        if not included.startswith(allowed):
            yield f'{name}: must not include {included}'
        if name.startswith('platform/') and not name.startswith('platform/local/') and 'local/' in included:
            yield f'{name}: an interface must not include the stand-in'
        if name.endswith('.h') and name.startswith(PUBLIC) and '/internal/' not in name and '/internal/' in included:
            yield f'{name}: a public header must not include {included}'
        if name.startswith('tools/') and '/internal/' in included:
            yield f'{name}: the program uses the public headers only'


def check_logging(name, text):
    logs = re.search(r'\b(VY_LOG|VY_FAIL_IF|VyPrintf)\s*\(', text)
    allowed = name == 'utils/internal/log.h' or name == 'utils/mpeg4util.h' or name[:-4] in LOG_SOURCES
    if logs and name.startswith(PUBLIC) and not allowed:
        yield f'{name}: only the named sources log'


def check_versions(name, text):
    if re.search(r'LIB(AV|SW)\w+_VERSION', text) and not name.startswith('utils/internal/ffcompat.'):
        yield f'{name}: FFmpeg versions are told apart in ffcompat alone'


def check_lock(name, text):
    if name.startswith(PUBLIC + ('tools',)) and name not in LOCK_HOLDERS:
        for call in LOCKED_CALLS.findall(text):
            yield f'{name}: {call} goes through the lock wrappers'


def check_length(name, text):
    limit = 750 if name[:-4] in LONG_SOURCES else 500
    lines = text.count('\n')
    if lines >= limit:
        yield f'{name}: {lines} lines, at most {limit - 1}'


def check_tree():
    for path, name in sources('platform', 'utils', 'archiving', 'tools', 'examples'):
        text = path.read_text()
        for check in (check_layers, check_logging, check_versions, check_lock, check_length):
            yield from check(name, text)


def jsoncpp_flags():
    run = subprocess.run(['pkg-config', '--cflags-only-I', 'jsoncpp'], capture_output=True, text=True, check=True)
    return [flag.replace('-I', '-isystem', 1) for flag in run.stdout.split()]


def public_headers(*folders):
    for path, name in sources(*folders):
        if path.suffix == '.h' and '/internal/' not in name and '/local/' not in name:
            yield path, name


def compile_errors(compiler, code, *flags):
    """What the compiler says to a source of its own; empty when all is well."""
    command = [compiler, '-fsyntax-only', '-Wall', '-Wextra', '-Wshadow', '-Wconversion', '-Werror', *flags,
               f'-I{ROOT}', *jsoncpp_flags(), '-x', 'c++', '-']
    run = subprocess.run(command, input=code, capture_output=True, text=True)
    return run.stderr if run.returncode != 0 else ''


def check_headers():
    """Each public header compiles alone, warning-free, as C++17 and C++20, with every compiler that is here."""
    for compiler in ('g++', 'clang++'):
        if subprocess.run(['which', compiler], capture_output=True).returncode != 0:
            print(f'{compiler} is not here, skipped')
            continue
        for _, name in public_headers('platform', *PUBLIC):
            for standard in ('-std=c++17', '-std=c++20'):
                errors = compile_errors(compiler, f'#include "{name}"\n', '-Wpedantic', standard)
                if errors:
                    yield f'{name} with {compiler} {standard}:\n{errors}'


def documents():
    """Every page with its name; fenced code apart, for it is not prose."""
    folders = [path for path in ROOT.iterdir() if path.is_dir() and path.name not in ('.git', 'build', 'demo')]
    for path in sorted([*ROOT.glob('*.md'), *(page for folder in folders for page in folder.rglob('*.md'))]):
        text = path.read_text()
        codes = [code for language, code in FENCE.findall(text) if language == 'cpp']
        yield path, path.relative_to(ROOT).as_posix(), FENCE.sub('', text), codes


def arguments(text):
    """The arguments of the call whose opening parenthesis stands before text."""
    depth, start = 0, 0
    for token in re.finditer(r'"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'|[()\[\]{},]', text):
        if token.group() in '([{':
            depth += 1
        elif token.group() in ')]}':
            depth -= 1
        if depth < 0 or (token.group() == ',' and depth == 0):
            yield text[start:token.start()]
            start = token.end()
        if depth < 0:
            return


def messages(source):
    """The texts that a source logs, white space as in a line of prose."""
    text = source.read_text()
    for call in re.finditer(r'\b(VY_LOG|VY_FAIL_IF|VyPrintf)\s*\(', text):
        behind = list(arguments(text[call.end():]))[FORMAT_ARGUMENT[call.group(1)]:]
        formats = next((argument for argument in behind if '"' in argument), '')
        for literals in re.findall(r'(?:"(?:\\.|[^"\\])*"\s*)+', formats):
            yield ' '.join(ast.literal_eval(f'({literals})').split())


def check_messages():
    """Each message that may be logged is explained under its source, and nothing else is."""
    pages = re.split(r'^## ', (ROOT / 'docs/troubleshooting.md').read_text(), flags=re.M)
    sections = {page.split('\n', 1)[0]: page for page in pages[1:]}
    for source in sorted(LOG_SOURCES):
        path = ROOT / f'{source}.cpp'
        logged = set(messages(path)) if path.exists() else set()
        rows = re.findall(r'^\| (`.*?) \| ', sections.get(source, ''), flags=re.M)
        explained = {text for row in rows for text in re.findall(r'`([^`]+)`', row)}
        yield from (f'docs/troubleshooting.md: {source} lacks `{text}`' for text in sorted(logged - explained))
        yield from (f'docs/troubleshooting.md: {source} never logs `{text}`' for text in sorted(explained - logged))


def check_links():
    headings = {path: {re.sub(r'[^\w\- ]', '', line.lower()).replace(' ', '-')
                       for line in re.findall(r'^#+ (.*)', text, flags=re.M)} for path, _, text, _ in documents()}
    for path, name, text, _ in documents():
        for link in re.findall(r'\]\(([^)\s]+)\)', text):
            file, _, anchor = link.partition('#')
            target = (path.parent / file).resolve() if file else path
            if '://' not in link and (not target.exists() or (anchor and anchor not in headings.get(target, ()))):
                yield f'{name}: {link} leads nowhere'
            if '://' not in link and INSTALLED.match(name) and not INSTALLED.match(os.path.relpath(target, ROOT)):
                yield f'{name}: {link} is not installed beside it'


def check_uses():
    """Each public function has its use in the README or on a page of docs/reference."""
    pages = ('README', 'docs/reference/')
    reference = ' '.join(code for _, name, _, codes in documents() for code in codes if name.startswith(pages))
    for path, name in public_headers(*PUBLIC):
        code = re.sub(r'//.*', '', path.read_text())
        code = re.sub(r'\n (?:private|protected):.*?\n};', '\n};', code, flags=re.S)
        for function in sorted(set(re.findall(r'[\w&*>] [*&]?([A-Z]\w+)(?:<\w+>)?\(', code))):
            if not re.search(rf'\b{function}\b', reference):
                yield f'{name}: no page of docs/reference uses {function}'


def check_version():
    project = re.search(r'project\(mediautil VERSION ([\d.]+)', (ROOT / 'CMakeLists.txt').read_text()).group(1)
    newest = re.search(r'^## ([\d.]+)', (ROOT / 'CHANGELOG.md').read_text(), flags=re.M).group(1)
    if project != newest:
        yield f'CMakeLists.txt: version {project}, but CHANGELOG.md begins with {newest}'


def check_documents():
    for check in (check_messages, check_links, check_uses, check_version):
        yield from check()


def check_snippets():
    """Each piece of C++ on a page that is a whole one compiles."""
    for _, name, _, codes in documents():
        for code in codes:
            if code.startswith('#include'):
                errors = compile_errors('g++', code, '-std=c++17')
                if errors:
                    yield f'{name}:\n{errors}'


def check_symbols(library, update):
    listed = ROOT / 'tests' / 'exported_symbols.txt'
    run = subprocess.run(['nm', '-DC', '--defined-only', library], capture_output=True, text=True, check=True)
    # "abi:cxx11" tags and the size of addresses are the compiler's business.
    names = {re.sub(r'\[abi:\w+\]', '', line.split(' ', 2)[2]) for line in run.stdout.splitlines()}
    if update:
        listed.write_text('\n'.join(sorted(names)) + '\n')
        return
    expected = set(listed.read_text().splitlines())
    yield from (f'exported but not listed: {name}' for name in sorted(names - expected))
    yield from (f'listed but not exported: {name}' for name in sorted(expected - names))


def main(words):
    if words[:1] == ['tree']:
        breaches = check_tree()
    elif words[:1] == ['headers']:
        breaches = check_headers()
    elif words[:1] == ['documents']:
        breaches = check_documents()
    elif words[:1] == ['snippets']:
        breaches = check_snippets()
    elif words[:1] == ['symbols'] and len(words) > 1:
        breaches = check_symbols(words[1], '--update' in words)
    else:
        print(__doc__, file=sys.stderr)
        return 2
    breaches = list(breaches)
    print('\n'.join(breaches) or f'checks {words[0]}: no breach')
    return 1 if breaches else 0


if __name__ == '__main__':
    sys.exit(main(sys.argv[1:]))
