#!/usr/bin/env python3
"""Writes the seed corpus of every fuzz target into corpus/<target>/.

The seeds are committed; run this again only when a target changes how it
reads its input. Each seed is a short scenario in the target's own byte
layout (the order in which each *Fuzz.cpp reads its input), plus a few random
scenarios of useful length for the model checks, from a fixed generator so
that the files do not change from one run to the next.
"""
import os
import random
import shutil
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
TRACES_OFF = b"\xff"  # the first byte of the model targets: >= 64 leaves traces off


def corpus(target, seeds):
    d = os.path.join(HERE, "corpus", target)
    shutil.rmtree(d, ignore_errors=True)
    os.makedirs(d)
    for name, data in seeds.items():
        with open(os.path.join(d, name), "wb") as f:
            f.write(data if isinstance(data, bytes) else data.encode())


def randoms(prefix, lengths, seed):
    rng = random.Random(seed)
    return {f"random-{n}": prefix + bytes(rng.randrange(256) for _ in range(n)) for n in lengths}


# --- ValueStrepFuzz: a type index, then the text ------------------------------
VALUE_TEXTS = [
    "65535", "4294967295", "16383", "9223372036854775807L", "2",
    "Value('Olk::UniqueId', ** {'timestamp': 1700000000, 'pid': 42, 'count': 7})",
    "( 3 )", "TableId/BinId/Index: ( 2, 1, 4095 )", "high", "17",
    "Value('Olk::TaskStat::TaskStatus', ** {'taskTimer': True, 'taskTimerRunning': False, "
    "'taskOnRunQueue': True, 'taskCurrentlyRunning': False, 'taskSuspended': False})",
    "Value('Olk::TaskStat', ** {'taskName': 'codef \\'x\\'', 'taskKey': 5, 'taskPriority': low, 'taskRun': 3, "
    "'taskTotalRunTime': 0.25, 'taskWorkCountTotal': 1, 'taskWorkCountDecayAvg': 0.5, "
    "'taskWorkCountHighWaterMark': 2, 'taskWorkPending': 0, 'taskWorkPendingHighWaterMark': 4, "
    "'taskQuantumViolation500': 0, 'taskQuantumViolation200': 1, 'taskRunTimeHighWaterMark': 0.125, "
    "'taskLastSchedulingLatency': 1e-05, 'taskSchedulingLatencyHighWaterMark': 0.001, 'taskDeadCount': 0, "
    "'taskStatus': Value('Olk::TaskStat::TaskStatus', ** {'taskTimer': False, 'taskTimerRunning': False, "
    "'taskOnRunQueue': False, 'taskCurrentlyRunning': True, 'taskSuspended': False})})",
    "Value('Olk::TaskSchedulerPriorityStats', ** {'taskPriority': scavenge, 'runnableTasks': 1, "
    "'idleTasks': 2, 'deadTasks': 0, 'totalRunCount': 99})",
    "Value('Olk::BFA::JumboFreeBlk', ** {'blkSz': 96, 'startIndex': 4})",
    "Value('Olk::Range', ** {'min': 1, 'max': 4294967295})",
    "Value('Olk::TimedU32', ** {'timestamp': 1.5, 'number': 7})",
    "Value('Olk::TimedRange', ** {'timestamp': inf, 'range': Value('Olk::Range', ** {'min': 6, 'max': 9})})",
    "Value('Olk::XactConfig', ** {'id': 3, 'configVersion': 12})",
    "Value('Olk::XactStatus', ** {'id': 3, 'result': xactFailure, 'comment': 'Timeout', 'statusVersion': 12})",
    "Value('Olk::ExecResult', ** {'result': xactSuccess, 'comment': 'a\\\\b'})",
    "Value('Olk::Generation', ** {'id': 4, 'valid': True})",
    "Value('Olk::GenTime', ** {'value': 12.5, 'dummyValue': -0.0})",
    "127",
    "Value('Olk::ChipSet', ** {'valueLo': 18446744073709551615, 'valueHi': 1})",
    "Value('Olk::ExpectedCall', ** {'call': 'ioctl \"ab\" 2', 'returnValue': 2, 'output': 'xy'})",
    "Value('Olk::TestIoctlOut', ** {'returnCode': -1, 'outStr': ''})",
    "Value('Olk::Event', ** {'value': True, 'when': 1000.25})",
    "Value('Olk::Count', ** {'count': 3, 'when': 2})",
    "Value('Olk::EventOrCount', ** {'value': False, 'count': 1, 'when': 3})",
    "Value('Olk::ConditionOrChanged', ** {'current': True, 'changed': True, 'when': 4})",
    "Value('Olk::EventStat', ** {'current': True, 'count': 2, 'last': 5})",
    "Value('Olk::CountOrChangedStat', ** {'count': 1, 'changes': 2, 'lastChange': 6})",
    "Value('Olk::ConditionStat', ** {'current': False, 'changes': 1, 'lastChange': 7})",
    "Value('Olk::CountStat', ** {'count': 9, 'last': 8})",
    "'it\\'s \\\\ \\n'", "-1.25e-300", "True",
]
corpus("ValueStrepFuzz", {f"type-{i:02d}": bytes([i]) + t.encode() for i, t in enumerate(VALUE_TEXTS)})

# --- ShellTokenizeFuzz: the command itself ------------------------------------
corpus("ShellTokenizeFuzz", {
    "quoted-metachars": "echo 'a;b' \"c|d\"",
    "runs-of-blanks": "a  b\tc   ",
    "empty-quoted": "'' x \"\"",
    "joined-pieces": "a\"b c\"d e\\ f",
    "refused-metachars": "echo a;b",
    "unclosed": "echo \"unclosed 'x'",
    "trailing-backslash": "ls \\",
    "passed-through": "run $HOME {a} ?! 'single \\ backslash'",
})

# --- IdSetTextFuzz: size - 1 (2 bytes), a starting id, the text ----------------
def idset_text(size, initial, text):
    init = bytes([initial]) if size <= 256 else struct.pack("<H", initial)
    return struct.pack("<H", size - 1) + init + text.encode()

corpus("IdSetTextFuzz", {
    "runs": idset_text(100, 3, "(1-3,5,9-10)"),
    "empty": idset_text(10, 0, "()"),
    "whole": idset_text(64, 63, "(0-63)"),
    "bad-number": idset_text(100, 1, "(7,x)"),
    "large": idset_text(16384, 16383, "(0,64-127,16000-16382)trailing"),
})

# --- the model targets: structured scenarios and random ones --------------------
corpus("IdSetModelFuzz", randoms(b"", [40, 120, 300], 1) | {
    # small size (first byte < 240), then steps of op, id, extra
    "small-ops": bytes([10, 69, 0]) + bytes([0, 5, 1, 2, 60, 30, 9, 0, 1, 4, 0, 2, 11, 3, 0, 15, 64, 0]),
    "large-size": bytes([250, 0xff, 0x3f]) + bytes(range(0, 120, 3)),
})
corpus("NumberPoolModelFuzz", randoms(TRACES_OFF, [30, 90, 240], 2) | {
    # op (bit 0 window, then add/del range, add/del number, queries), lo, hi
    "merge-and-split": TRACES_OFF + bytes([0, 1, 5, 0, 10, 12, 0, 6, 9, 2, 3, 8, 8, 0, 0, 255, 1, 255, 255]),
    "top-of-range": TRACES_OFF + bytes([1, 200, 255, 3, 250, 255, 5, 255, 0, 9, 199, 200]),
    "traced": b"\x00" + bytes([0, 0, 40, 2, 10, 20, 4, 15, 0]),
})
ALPHA = {"a": 0, "b": 1, "/": 2, ".": 3, "*": 4}

def trie_step(op, name):
    return bytes([op, len(name)]) + bytes(ALPHA[c] for c in name)

corpus("PrefixTrieModelFuzz", randoms(TRACES_OFF, [40, 150], 3) | {
    "add-delete": TRACES_OFF + b"".join(trie_step(o, n) for o, n in [
        (0, "a/b"), (0, "a"), (1, "a"), (2, "a/b.a"), (1, "a/b"), (1, "a/b"), (0, "a.b")]),
    "mount-points": b"\x00" + b"".join(trie_step(o, n) for o, n in [
        (0, "a*/b"), (0, "b.a*/a"), (2, "a/b/a"), (1, "a*/b"), (0, "a*"), (2, "b.a/a")]),
})
corpus("BestFitAllocatorReplayFuzz", randoms(TRACES_OFF, [50, 150, 300], 4) | {
    # memSz - 2, maxBlkSz - 1, no offset; allocs, frees, defragment, resize
    "defragment": TRACES_OFF + bytes([30, 7, 0]) + bytes([0, 3, 1, 4, 2, 1, 0, 7, 4, 0, 4, 1, 6, 0, 0, 2, 6, 0]),
    "shrink": TRACES_OFF + bytes([40, 9, 1, 0x10, 0x27]) + bytes([0, 9, 0, 9, 0, 5, 4, 1, 7, 0, 10, 7, 0, 90]),
    "traced-realloc": b"\x00" + bytes([20, 5, 0]) + bytes([3, 2, 4, 3, 0, 8, 0, 2, 6, 0, 7, 0, 30]),
})

# --- CuckooHitlessFuzz ----------------------------------------------------------
def cuckoo(tables, mode, maxloop, maxretry, seed, ops, traced=False, review=4):
    b = (b"\x00" if traced else TRACES_OFF) + bytes([len(tables) - 1])
    for size, bins in tables:
        b += bytes([size - 1, bins - 1])
    b += bytes([mode]) + struct.pack("<I", 0x1234567) + bytes([maxloop - 1, maxretry - 1, review - 1])
    b += struct.pack("<I", seed)
    return b + b"".join(bytes([op, key]) for op, key in ops)

INS, DEL, ACK, REV = 0, 4, 6, 7
rounds = []
for r in range(4):
    rounds += [(INS, k) for k in range(r * 4, r * 4 + 4)] + [(ACK, 0)]
rng = random.Random(5)
corpus("CuckooHitlessFuzz", {
    # rounds of inserts acknowledged in between, so later ones evict items already written
    "fill-two-tables": cuckoo([(4, 1), (4, 1)], 0, 16, 3, 7,
                              rounds + [(DEL, 1), (DEL, 6), (ACK, 0), (INS, 20), (INS, 21), (ACK, 0)]),
    "same-index-bins": cuckoo([(4, 2), (4, 2), (2, 2)], 1, 12, 3, 3,
                              [(INS, k) for k in range(12)] + [(ACK, 0)] + [(INS, k) for k in range(12, 24)]
                              + [(ACK, 0), (REV, 0), (ACK, 0)]),
    "crowded-pending": cuckoo([(3, 1), (3, 1)], 2, 10, 2, 1,
                              [(INS, k) for k in range(10)]
                              + [(ACK, 0), (DEL, 0), (DEL, 3), (REV, 0), (ACK, 0), (REV, 0), (INS, 11), (ACK, 0)]),
    "single-table": cuckoo([(4, 1)], 0, 5, 1, 11, [(INS, k) for k in range(6)] + [(ACK, 0), (DEL, 2), (INS, 9)],
                           traced=True),
    "mixed-five-tables": cuckoo([(3, 1), (2, 2), (3, 1), (2, 1), (1, 3)], 0, 16, 3, 99,
                                [(rng.choice([INS, INS, INS, DEL, ACK, REV]), rng.randrange(24)) for _ in range(70)]),
})

# --- CellIdentityFuzz: (fact << 1 | missing), then the file's contents ----------
CELLID, CELLTYPE, PRODUCT, ELECTION, BMC = range(5)
corpus("CellIdentityFuzz", {
    "cellid-decimal": bytes([CELLID << 1]) + b"2",
    "cellid-newline": bytes([CELLID << 1]) + b"2\n",
    "cellid-hex": bytes([CELLID << 1]) + b"0x2",
    "cellid-negative": bytes([CELLID << 1]) + b"-1",
    "cellid-missing": bytes([CELLID << 1 | 1]),
    "celltype": bytes([CELLTYPE << 1]) + b"supervisor",
    "product-long": bytes([PRODUCT << 1]) + b"p" * 40,
    "flag-true": bytes([ELECTION << 1]) + b"TRUE",
    "flag-lowercase": bytes([BMC << 1]) + b"false",
})
