#!/usr/bin/env python3
"""The rules of the house as tests: checks.py tree | headers | symbols LIBRARY [--update]. Exit 1 names each breach."""
import pathlib
import re
import subprocess
import sys
import tempfile

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


def check_headers():
    """Each public header compiles alone, warning-free, with every compiler that is here."""
    flags = ['-std=c++17', '-fsyntax-only', '-Wall', '-Wextra', '-Wpedantic', '-Wshadow', '-Wconversion', '-Werror',
             f'-I{ROOT}', *jsoncpp_flags(), '-x', 'c++']
    for compiler in ('g++', 'clang++'):
        if subprocess.run(['which', compiler], capture_output=True).returncode != 0:
            print(f'{compiler} is not here, skipped')
            continue
        for path, name in sources('platform', *PUBLIC):
            if path.suffix != '.h' or '/internal/' in name or '/local/' in name:
                continue
            with tempfile.NamedTemporaryFile('w', suffix='.cpp') as alone:
                alone.write(f'#include "{name}"\n')
                alone.flush()
                run = subprocess.run([compiler, *flags, alone.name], capture_output=True, text=True)
            if run.returncode != 0:
                yield f'{name} with {compiler}:\n{run.stderr}'


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


def main(arguments):
    if arguments[:1] == ['tree']:
        breaches = check_tree()
    elif arguments[:1] == ['headers']:
        breaches = check_headers()
    elif arguments[:1] == ['symbols'] and len(arguments) > 1:
        breaches = check_symbols(arguments[1], '--update' in arguments)
    else:
        print(__doc__, file=sys.stderr)
        return 2
    breaches = list(breaches)
    print('\n'.join(breaches) or f'checks {arguments[0]}: no breach')
    return 1 if breaches else 0


if __name__ == '__main__':
    sys.exit(main(sys.argv[1:]))
