"""Random operations, with hostile values now and then, on the module and on its twin: no step may
differ.
"""

import json
import os
import random
import re
import unittest

from . import hosts

FIRST, COUNT = int(os.environ.get("FUZZ_FIRST", "0")), int(os.environ.get("FUZZ_COUNT", "200"))  # the seeds
STEPS = """t.record_call(NAME, ACTION, OUTCOME, alias_hit=ALIAS, duration_ms=NUMBER)
    t.record_call('a', 'text', 'ok', alias_hit=False, duration_ms=2.5) | t.record_error('a', 'boom')
    t.record_success(NAME) | t.record_error(NAME, ERROR) | t.is_disabled(NAME) | t.is_disabled('a')
    t.get_health_summary() | t._usage_rows(NAME) | t.has_unsaved_changes, t.cooldown_s | t.flush() | t.flush()
    t._flush_usage() | t._flush_health() | t._load() | t._load_usage() | restart() | restart(ROWS, DOCUMENT)
    clock.now += STEP | clock.now += STEP | h._known(NAME, ACTION), h._epoch(TIME) | h._sqlite_time(NUMBER)
    h.thread_census_report(NUMBER, hosts.ThreadCensus(NUMBER, NUMBER, {NAME: 1}))"""
HOSTILE = """t._state[NAME].FIELD = NUMBER | t._state[NAME].FIELD = ERROR | t._usage[KEY].FIELD = NUMBER
    t._state[NAME] = Odd(FIELD=NUMBER) | t._state[NAME] = h._ToolState(NUMBER, NUMBER, ERROR, NUMBER, NUMBER)
    del t._state['a'].FIELD | t._usage[KEY] = h._Usage(NUMBER, NUMBER, NUMBER) | t._usage[NAME] = h._Usage(1)
    t._usage['abcd'] = h._Usage(1) | t._usage[KEY] = None | t._state[NAME] = None | t._dirty.add(NAME)
    t._usage_dirty = NUMBER | clock.now = CLOCK | clock.now = 1.7e9 | limits.disable_after_errors = NUMBER
    limits.disable_cooldown_s = NUMBER | db.answers['execute'] = FAILURE | db.answers['executemany'] = FAILURE
    t._usage[KEY] = Odd(FIELD=NUMBER, calls=1, timed_calls=2) | t._usage = {KEY: h._Usage(2, 1, 3)}
    del t._limits | t._state = Odd() | h.is_slow_call = lambda *_: 1 // 0 | h.TOOLS = {'a': h}"""
POOLS = {word: values.split() for word, values in {  # the first half of each is what is usual
    "NAME": "'a' 'a' 'a' 'b' 'b' 'c' 'zz' '' 'é' '\\ud800' Text('a') None 1 ('x',) [] Odd()",
    "ACTION": "None None 'text' 'text' 'é' '' 'None' Text('text') 5 []",
    "OUTCOME": "'ok' 'ok' 'ok' 'error' None 3",
    "ALIAS": "False False True True 0 None 'x'",
    "KEY": "('a','text','ok',False) ('a',None,'ok',False) ('b',None,'ok',True) (NAME,ACTION,OUTCOME,ALIAS)",
    "FIELD": "call_count calls error_count timed_calls last_error disabled_at updated_at total_ms",
    "NUMBER": "0 1 3 -2 0.5 None 2.675 0.0625 1e300 -0.0 True '7' 'x' nan inf 10**30 -10**400 Int(2) []",
    "ERROR": "'boom' 'boom' '' None 'x'*501 Text('y'*600) 5 0 b'z'*600 ['l']*501 '\\U0001f600'*501",
    "TIME": "None 0 '2023-11-14\\t22:13:20' '2023-1-5\\t3:4:5' '2023-02-30\\t0:0:0' Text('') '5' 5 b'x'",
    "STEP": "1 60 0.3 -5 1e6",
    "CLOCK": "nan inf 1e18 None 'late' Int(2) OSError('clock') KeyboardInterrupt('clock') -62135596800.0",
    "FAILURE": "OSError('broken') KeyboardInterrupt('stop') None lambda*_:t.record_success('b')",
    "ROWS": "[ROW,ROW,ROW] [ROW,ROW] [ROW] [ROW,5] iter([ROW,1//0]) OSError('broken') None",
    "ROW": "(NAME,NUMBER,NUMBER,ERROR,TIME,TIME) [NAME,1,0,None,TIME,TIME] ('a',3,3,'boom',TIME,TIME)",
    "DOCUMENT": "(json.dumps([ENTRY,ENTRY]),) (json.dumps([ENTRY]),) ('[5]',) ('{',) (5,) OSError('broken')",
    "ENTRY": "dict(tool=NAME,action=ACTION,outcome=OUTCOME,alias_hit=ALIAS,calls=NUMBER,timed_calls=1,**MS)",
    "MS": "dict(total_ms=STEP) dict(total_ms=NUMBER)",
}.items()}
Text, Int = type("Text", (str,), {}), type("Int", (int,), {})


class Odd:
    """A foreign object: no number, no text, not hashable, with only the attributes it is given."""

    def __init__(self, **fields):
        vars(self).update(fields)

    def __repr__(self):
        return f"Odd({vars(self)})"

    __eq__ = None


def sequence(seed):
    """The steps of a seed; those of an even one are without the hostile ones."""
    rng, words, steps = random.Random(seed), re.compile(r"\b(?:%s)\b" % "|".join(POOLS)), []
    tables = [[step.strip() for step in table.replace("\n", "|").split("|")] for table in (STEPS, HOSTILE)]
    while len(steps) < 40:
        step = rng.choice(tables[seed % 2 and rng.random() < 0.2])
        while word := words.search(step):
            pool = POOLS[word[0]]
            value = rng.choice(pool[:len(pool) // 2 + 1] if rng.random() < 0.8 else pool)
            step = step[:word.start()] + value + step[word.end():]
        steps.append(step)
    return steps


def trace(implementation, steps):
    """After each step: what it came to, the tracker's state, database calls, warnings, clock
    readings.
    """
    with hosts.Host("fuzz", implementation) as host:
        def restart(rows=None, document=None):
            db.answers = sqlite | ({"fetchall": rows, "fetchone": document} if document else {})
            try:
                names["t"] = host.tracker(db, names["limits"])
            finally:
                db.tracker = names.get("t")

        clock, db, told = hosts.Clock(), host.database(), []
        host.health.time, sqlite = clock, db.answers
        names = globals() | {"h": host.health, "db": db, "clock": clock, "limits": hosts.ToolsConfig(2),
                             "restart": restart, "nan": float("nan"), "inf": float("inf")}
        restart()
        for step in steps:
            names["answer"] = None
            body = step if re.match(r"del |[^(]* \+?= ", step) else f"answer = {step}"
            result, state = hosts.outcome(exec, body, names), hosts.state_of(names["t"])
            warnings = [(text, list(map(repr, arguments))) for text, arguments in host.warnings]
            seen = hosts.typed([names["answer"], db.calls])
            told.append(repr((result, seen, state, warnings, clock.reads)))
            db.calls.clear()
            host.warnings.clear()
            if state[1]:  # the lock was left held: the next step would wait for ever
                break
        return told


class AgainstPlain(unittest.TestCase):
    def test_random_sequences(self):
        for seed in range(FIRST, FIRST + COUNT):
            steps = sequence(seed)
            if trace(hosts.MODULE, steps) != trace(hosts.PLAIN, steps):
                for step in reversed(range(len(steps))):  # leave out what the difference does not need
                    fewer = steps[:step] + steps[step + 1:]
                    if trace(hosts.MODULE, fewer) != trace(hosts.PLAIN, fewer):
                        steps = fewer
                pairs = zip(steps, trace(hosts.MODULE, steps), trace(hosts.PLAIN, steps))
                step, module, plain = next(pair for pair in pairs if pair[1] != pair[2])
                self.fail(f"seed {seed} differs at {step!r} of\n  " + "\n  ".join(steps) +
                          f"\nmodule: {module}\nplain:  {plain}")
