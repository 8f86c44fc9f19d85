#!/usr/bin/env python3
"""Compares the library with the least work that gives the same result, and with public programs. README.md has the
method."""

import argparse
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

SIDES = ("library", "floor")
SECTIONS = ("count", "time", "process", "upload")

# What an operation may cost in user-space instructions: as a ratio to the floor, and on its own for log calls. A masked
# picture by the image route goes through RGBA and YUV, whose pixels are its result; the floor paints into RGB.
RATIO_GOALS = (
    (r"(h264|hevc|mjpeg)/(320|full)/(frame|image)", 1.01),
    (r"(h264|hevc|mjpeg)/(320|full)/frame-masked", 1.02),
    (r"(h264|hevc|mjpeg)/(320|full)/image-masked", 2.2),
    (r"thumbnail", 1.01),
    (r"mux/copy", 1.28),
    (r"mux/encode", 1.10),
    (r"demux/loop", 1.05),
    (r"mix/pcm", 1.06),
    (r"gif/30x640x360", 1.03),
    (r"g711/mp3|mp3/encode", 1.05),
    (r"speak/(aac|mp3)", 1.05),
    (r"speak/(g726|g722)", 1.08),
)
INSTRUCTION_GOALS = {"log/dropped": 11}
LOOP = "log/loop"  # the empty loop around the log calls, taken off them
COUNTED_LOG_CALLS = 10000
TIMED_LOG_CALLS = 5000000
TIMED_MICROSECONDS = 300000  # of one timed run
UPLOAD_MEBIBYTES = 1024


class Failure(Exception):
    pass


def run(command, **options):
    result = subprocess.run([str(part) for part in command], capture_output=True, text=True, check=False, **options)
    if result.returncode != 0:
        raise Failure(f"{command[0]} failed ({result.returncode}):\n{result.stderr.strip() or result.stdout.strip()}")
    return result


class Workload:
    """One workload of one benchmark program."""

    def __init__(self, program, name):
        self.program = program
        self.name = name
        self.is_log = name.startswith("log/")

    def command(self, side, times):
        return [*self.program, "--once", f"{self.name}/{side}", times]

    def instructions(self, side, out_file):
        """Instructions of one call; start-up and warm-up are not collected."""
        calls = COUNTED_LOG_CALLS if self.is_log else 1
        result = run(["valgrind", "--tool=callgrind", "--toggle-collect=CountedRun",
                      f"--callgrind-out-file={out_file}", *self.command(side, calls)])
        found = re.search(r"Collected : (\d+)", result.stderr)
        if found is None or int(found[1]) == 0:
            raise Failure(f"callgrind collected nothing for {self.name}/{side}")
        return int(found[1]) / calls

    def microseconds(self, side, times):
        return float(run(self.command(side, times)).stdout)

    def goal(self):
        """The ratio that instructions may reach, or None."""
        return next((goal for pattern, goal in RATIO_GOALS if re.fullmatch(pattern, self.name)), None)


def print_table(title, columns, rows):
    print(f"\n{title}\n")
    cells = [columns] + [[str(cell) for cell in row] for row in rows]
    widths = [max(len(row[i]) for row in cells) for i in range(len(columns))]
    for row in cells:
        print("  ".join(cell.ljust(w) if i == 0 else cell.rjust(w)
                        for i, (cell, w) in enumerate(zip(row, widths))).rstrip())


def goal_cells(value, goal):
    if goal is None:
        return ["-", ""], False
    exceeded = value > goal
    return [f"{goal:g}", "ABOVE" if exceeded else "ok"], exceeded


def count(workloads, keep):
    """Prints instructions per operation. Returns the names that exceed their goal."""
    above = []
    rows = []
    log_rows = []
    loop = 0
    for workload in workloads:
        found = {}
        for side in SIDES:
            out_file = Path(keep) / f"callgrind.{workload.name.replace('/', '_')}.{side}" if keep else "/dev/null"
            found[side] = workload.instructions(side, out_file)
        if workload.name == LOOP:
            loop = found["library"]
            continue
        if workload.is_log:
            net = found["library"] - loop
            # The few instructions around the loop are no part of a call.
            cells, exceeded = goal_cells(round(net, 1), INSTRUCTION_GOALS.get(workload.name))
            log_rows.append([workload.name, f"{net:.1f}", f"{found['floor'] - loop:.1f}", *cells])
        else:
            ratio = found["library"] / found["floor"]
            cells, exceeded = goal_cells(ratio, workload.goal())
            rows.append([workload.name, f"{found['library'] / 1e6:.2f}", f"{found['floor'] / 1e6:.2f}",
                         f"{ratio:.4f}", *cells])
        if exceeded:
            above.append(workload.name)
    if rows:
        print_table("Million user-space instructions per operation",
                    ["workload", "library", "floor", "ratio", "goal", ""], rows)
    if log_rows:
        print_table("Instructions per log call, loop taken off", ["workload", "library", "floor", "goal", ""], log_rows)
    return above


def time_in_turn(workloads, rounds):
    """Prints CPU times; library and floor run in turn, so that both meet the same disturbances."""
    rows = []
    for workload in workloads:
        calls = TIMED_LOG_CALLS
        if not workload.is_log:
            calls = max(1, round(TIMED_MICROSECONDS / workload.microseconds("floor", 1)))
        times = {side: [] for side in SIDES}
        for _ in range(rounds):
            for side in SIDES:
                times[side].append(workload.microseconds(side, calls))
        ratios = [a / b for a, b in zip(times["library"], times["floor"])]
        unit, scale = ("ns", 1000) if workload.is_log else ("ms", 0.001)
        rows.append([workload.name, f"{statistics.median(times['library']) * scale:.2f} {unit}",
                     f"{statistics.median(times['floor']) * scale:.2f} {unit}", f"{statistics.median(ratios):.2f}",
                     f"{min(ratios):.2f}-{max(ratios):.2f}"])
    print_table(f"CPU time per operation, user and system, medians of {rounds} rounds",
                ["workload", "library", "floor", "ratio", "spread"], rows)


def snapshot_commands(tool, source, out):
    """Whole-process snapshots to 320 pixels, by label. The first is ours."""
    commands = {
        "mediautil": [tool, "snapshot", source, "-o", out, "--max-side", "320"],
        "ffmpeg": ["ffmpeg", "-v", "error", "-nostdin", "-y", "-i", source, "-frames:v", "1", "-vf", "scale=320:-2",
                   out],
        "ffmpeg -threads 1": ["ffmpeg", "-v", "error", "-nostdin", "-y", "-threads", "1", "-i", source, "-frames:v",
                              "1", "-vf", "scale=320:-2", out],
        "ffmpegthumbnailer": ["ffmpegthumbnailer", "-i", source, "-o", out, "-s", "320"],
    }
    if source.suffix == ".jpg":
        commands["convert"] = ["convert", source, "-resize", "320x180", "-quality", "85", out]
    return commands


def mix_commands(tool, sources, out):
    """Three files of five minutes to PCM, every one at its own level."""
    inputs = [part for source in sources for part in ("-i", source)]
    one_thread = [part for source in sources for part in ("-threads", "1", "-i", source)]
    chain = f"amix=inputs={len(sources)}:dropout_transition=2147483647,volume={len(sources)}"
    quiet = ["ffmpeg", "-v", "error", "-nostdin", "-y"]
    result = ["-filter_complex", chain, "-c:a", "pcm_s16le", out]
    return {
        "mediautil": [tool, "-q", "mix", *sources, "-o", out],
        "ffmpeg amix": [*quiet, *inputs, *result],
        "ffmpeg amix, 1 thread": [*quiet, "-filter_complex_threads", "1", *one_thread, *result],
    }


def g711_commands(tool, source, out):
    """Ten minutes of MP3 to a mu-law WAV file."""
    return {
        "mediautil": [tool, "-q", "g711", source, out],
        "ffmpeg": ["ffmpeg", "-v", "error", "-nostdin", "-y", "-i", source, "-ar", "8000", "-ac", "2", "-c:a",
                   "pcm_mulaw", out],
        "sox": ["sox", source, "-r", "8000", "-c", "2", "-e", "mu-law", out],
    }


def mp3_commands(tool, source, out):
    """The same to MP3 of 32 kHz, mono, 32 kbit/s."""
    return {
        "mediautil": [tool, "-q", "mp3", source, out],
        "ffmpeg": ["ffmpeg", "-v", "error", "-nostdin", "-y", "-i", source, "-ar", "32000", "-ac", "1", "-c:a",
                   "libmp3lame", "-b:a", "32k", out],
        "lame": ["lame", "--quiet", "--mp3input", "-m", "m", "-a", "--resample", "32", "-b", "32", source, out],
    }


def jpeg_commands(tool, source, out):
    """A stored frame out of the middle of ten minutes of Motion JPEG."""
    return {
        "mediautil": [tool, "-q", "jpeg", source, "--at", "300000", "-o", out],
        "ffmpeg": ["ffmpeg", "-v", "error", "-nostdin", "-y", "-ss", "300", "-i", source, "-c", "copy", "-frames:v", "1",
                   out],
    }


def make_jpeg_recording(file):
    run(["ffmpeg", "-v", "error", "-nostdin", "-f", "lavfi", "-i", "testsrc2=size=640x360:rate=10:duration=600", "-c:v",
         "mjpeg", "-q:v", "5", file])


def gif_commands(tool, source, out):
    """Thirty key frames as a GIF; convert gets them as JPEGs, and chooses its colours frame by frame."""
    colours = "setpts=0.5*N/TB,split[a][b];[a]palettegen[p];[b][p]paletteuse"
    return {
        "mediautil": [tool, "-q", "gif", source, "--delay", "500", "-o", out],
        "ffmpeg": ["ffmpeg", "-v", "error", "-nostdin", "-y", "-skip_frame", "nokey", "-i", source, "-filter_complex",
                   colours, out],
        "convert": ["convert", "-delay", "50", *sorted(source.parent.glob("gifframe*.jpg")), out],
    }


def make_gif_recording(file):
    run(["ffmpeg", "-v", "error", "-nostdin", "-f", "lavfi", "-i", "testsrc2=size=640x360:rate=10:duration=30", "-c:v",
         "libx264", "-g", "10", "-sc_threshold", "0", file])
    run(["ffmpeg", "-v", "error", "-nostdin", "-skip_frame", "nokey", "-i", file, "-fps_mode", "passthrough", "-q:v",
         "2", file.parent / "gifframe%02d.jpg"])


def run_measured(command):
    """Output, CPU seconds and peak resident megabytes of one run; the output is None when it fails."""
    with subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, text=True) as process:
        output = process.stdout.read()
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
    return output if process.returncode == 0 else None, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024


def measure_process(command, out):
    """CPU seconds and peak resident megabytes of one run; None when it makes no output."""
    out.unlink(missing_ok=True)
    output, cpu, resident = run_measured(command)
    if output is None or not out.is_file() or out.stat().st_size == 0:
        return None
    return cpu, resident


def compare_processes(title, jobs, rounds):
    """jobs: a title, the programs' commands by label with ours first, and the output, for each row group."""
    rows = []
    for name, commands, out in jobs:
        usable = {}
        for label, command in commands.items():
            if shutil.which(str(command[0])) is None:
                rows.append([f"{name}: {label}", "not installed", "", ""])
            elif measure_process(command, out) is None:  # also warms the page cache
                rows.append([f"{name}: {label}", "made no output", "", ""])
            else:
                usable[label] = (command, [])
        for _ in range(rounds):
            for command, runs in usable.values():
                runs.append(measure_process(command, out))
        medians = {}
        for label, (_, runs) in usable.items():
            if None in runs:
                raise Failure(f"{label} made no output of {name} in one of its runs")
            medians[label] = [statistics.median(values) for values in zip(*runs)]
        for label, (cpu, resident) in medians.items():
            ratio = f"{cpu / medians['mediautil'][0]:.2f}" if "mediautil" in medians else "-"
            rows.append([f"{name}: {label}", f"{cpu * 1000:.0f} ms", ratio, f"{resident:.0f} MB"])
    print_table(f"{title}, medians of {rounds} rounds", ["program", "CPU", "to mediautil", "peak resident"], rows)


def process_jobs(tool, inputs, only):
    """The tables of the section: titles and jobs. Those whose name does not match are left out."""
    keys = [inputs / name for name in ("key.h264", "key.hevc", "key.jpg")]
    music = inputs / "music.mp3"
    sounds = [inputs / name for name in ("mix1.m4a", "mix2.mp3", "mix3.m4a")]
    tables = (
        ("Snapshot to 320 pixels as a process of its own",
         [(key.name, snapshot_commands(tool, key, inputs / "out.jpg"), inputs / "out.jpg") for key in keys]),
        ("Ten minutes of 44.1 kHz stereo MP3 as a process of its own",
         [("g711", g711_commands(tool, music, inputs / "out.wav"), inputs / "out.wav"),
          ("mp3", mp3_commands(tool, music, inputs / "out.mp3"), inputs / "out.mp3")]),
        ("Three sounds of five minutes as one, to PCM, as a process of its own",
         [("mix", mix_commands(tool, sounds, inputs / "mix.wav"), inputs / "mix.wav")]),
        ("A frame of ten minutes of Motion JPEG as a process of its own",
         [("jpeg", jpeg_commands(tool, inputs / "stored.avi", inputs / "out.jpg"), inputs / "out.jpg")]),
        ("Thirty key frames of 640x360 to a GIF as a process of its own",
         [("gif", gif_commands(tool, inputs / "keys.mp4", inputs / "out.gif"), inputs / "out.gif")]),
    )
    for title, jobs in tables:
        wanted = [job for job in jobs if re.search(only, job[0])]
        if wanted:
            yield title, wanted


def upload_commands(program, file, port):
    """One upload each, by label. What they print begins with the upload's seconds of CPU, - for unknown, and time."""
    url = f"http://127.0.0.1:{port}/?fileSize={file.stat().st_size}"
    return {
        "library": [program, "send", "library", file, port],
        "read and send": [program, "send", "floor", file, port],
        "curl -T": ["curl", "-sSf", "-o", os.devnull, "-w", "- %{time_total}", "-X", "POST", "-H", "Expect:", "-T",
                    file, url],
    }


def compare_uploads(program, folder, rounds):
    file = folder / "upload"
    block = os.urandom(1 << 20)
    with open(file, "wb") as out:
        for _ in range(UPLOAD_MEBIBYTES):
            out.write(block)
    with subprocess.Popen([program, "serve"], stdout=subprocess.PIPE, text=True) as sink:
        try:
            commands = upload_commands(program, file, sink.stdout.readline().strip())
            runs = {label: [] for label, command in commands.items() if shutil.which(str(command[0]))}
            for label in list(runs) * (rounds + 1):  # the first round warms the page cache
                output, cpu, resident = run_measured(commands[label])
                if output is None:
                    raise Failure(f"uploading with {label} failed")
                own, seconds = output.split()[:2]
                runs[label].append((cpu if own == "-" else float(own), cpu, float(seconds), resident))
        finally:
            sink.kill()
    file.unlink()
    rows = []
    for label in commands:
        if label not in runs:
            rows.append([label, "not installed", "", "", "", ""])
            continue
        own, cpu, seconds, resident = (statistics.median(values) for values in zip(*runs[label][1:]))
        ratios = [run[0] / floor[0] for run, floor in zip(runs[label][1:], runs["read and send"][1:])]
        rows.append([label, f"{own:.2f} s", f"{cpu:.2f} s", f"{statistics.median(ratios):.2f}",
                     f"{UPLOAD_MEBIBYTES * 1.048576 / seconds:.0f}", f"{resident:.0f} MB"])
    print_table(f"Upload of 1 GiB over the loopback to the same receiver, medians of {rounds} rounds",
                ["program", "CPU", "with start-up", "ratio", "MB/s", "peak resident"], rows)


def find_workloads(programs, only):
    """The workloads whose name matches; the empty loop comes along with the log calls."""
    workloads = []
    for program in programs:
        names = run([*program, "--list"]).stdout.split()
        wanted = [name for name in names if re.search(only, name)]
        workloads += [Workload(program, name) for name in names if name in wanted or (wanted and name == LOOP)]
    return workloads


def parse_arguments():
    parser = argparse.ArgumentParser(description="Measures the library against its floor and against public programs.")
    parser.add_argument("sections", nargs="*", metavar="SECTION",
                        help=f"{', '.join(SECTIONS)}: instructions, CPU times, whole processes, uploads; all "
                             "without one")
    parser.add_argument("--bin", type=Path, default=Path(__file__).resolve().parents[1] / "build/release/bin",
                        help="folder of the benchmark programs (build/release/bin)")
    parser.add_argument("--only", default="", metavar="REGEX", help="only workloads whose name matches")
    parser.add_argument("--rounds", type=int, default=7, help="rounds of timed runs (7)")
    parser.add_argument("--keep", metavar="DIR", help="keep callgrind's files there, for callgrind_annotate")
    parser.add_argument("--gate", action="store_true", help="exit with 1 when instructions exceed a goal")
    arguments = parser.parse_args()
    unknown = set(arguments.sections) - set(SECTIONS)
    if unknown:
        parser.error(f"unknown section {', '.join(sorted(unknown))}; there are {', '.join(SECTIONS)}")
    if arguments.rounds < 1:
        parser.error("--rounds: at least 1")
    if arguments.gate and arguments.sections and "count" not in arguments.sections:
        parser.error("--gate looks at instructions: add the section count")
    arguments.sections = arguments.sections or list(SECTIONS)
    return arguments


def compare_with_floor(arguments, inputs):
    """The names that exceed their goal."""
    pictures = arguments.bin / "mediautil_bench"
    containers = arguments.bin / "mediautil_bench_container"
    mixes = arguments.bin / "mediautil_bench_mix"
    sound = arguments.bin / "mediautil_bench_audio"
    stills = arguments.bin / "mediautil_bench_stills"
    log_calls = arguments.bin / "mediautil_bench_log"
    media = (pictures, containers, sound, mixes)
    for program in media:
        run([program, "--make-inputs", inputs])
    programs = [*([program, "--inputs", inputs] for program in media), [stills], [log_calls]]
    for program in programs:
        run([*program, "--check"])

    workloads = find_workloads(programs, arguments.only)
    if not workloads:
        raise Failure(f"no workload matches {arguments.only}")
    above = []
    if "count" in arguments.sections:
        if shutil.which("valgrind") is None:
            raise Failure("valgrind is missing; scripts/setup.sh installs it")
        if arguments.keep:
            Path(arguments.keep).mkdir(parents=True, exist_ok=True)
        above = count(workloads, arguments.keep)
    if "time" in arguments.sections:
        time_in_turn(workloads, arguments.rounds)
    if "process" in arguments.sections:
        if re.search(arguments.only, "jpeg") and shutil.which("ffmpeg"):
            make_jpeg_recording(inputs / "stored.avi")
        if re.search(arguments.only, "gif") and shutil.which("ffmpeg"):
            make_gif_recording(inputs / "keys.mp4")
        for title, jobs in process_jobs(arguments.bin / "mediautil", inputs, arguments.only):
            compare_processes(title, jobs, arguments.rounds)
    return above


def compare(arguments, folder):
    for name in ("mediautil_bench", "mediautil_bench_audio", "mediautil_bench_container", "mediautil_bench_log",
                 "mediautil_bench_mix", "mediautil_bench_stills", "mediautil_bench_upload"):
        if not (arguments.bin / name).is_file():
            raise Failure(f"{arguments.bin / name} is missing: build with -DMEDIAUTIL_BENCH=ON, or name its folder "
                          "with --bin")
    above = compare_with_floor(arguments, folder) if arguments.sections != ["upload"] else []
    if "upload" in arguments.sections:
        uploads = arguments.bin / "mediautil_bench_upload"
        run([uploads, "check"])
        compare_uploads(uploads, folder, arguments.rounds)
    if above:
        print(f"\nAbove the goal: {', '.join(above)}")
    return 1 if above and arguments.gate else 0


def main():
    arguments = parse_arguments()
    try:
        with tempfile.TemporaryDirectory() as folder:
            return compare(arguments, Path(folder))
    except Failure as failure:
        print(f"compare.py: {failure}", file=sys.stderr)
        return 3


if __name__ == "__main__":
    sys.exit(main())
