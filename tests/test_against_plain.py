# Random programs on the module and on its plain-Python twin: no step may differ.
#
# A program is forty statements as text, so that one that differs can be shown, cut down to the
# steps that the difference needs. Words in capitals stand for values drawn from a pool. For example
#
#     tracker.record_error(NAME, ERROR)
#
# becomes `tracker.record_error('zz', 'x'*501)`. FUZZ_FIRST and FUZZ_COUNT in the environment choose
# the seeds.

import os
import random
import re
import types
import unittest

from . import hosts
from .worlds import World

FIRST, COUNT = int(os.environ.get("FUZZ_FIRST", "0")), int(os.environ.get("FUZZ_COUNT", "200"))
USUAL = [
    "tracker.record_call(NAME, ACTION, OUTCOME, alias_hit=ALIAS, duration_ms=NUMBER)",
    "tracker.record_call('a', 'text', 'ok', alias_hit=False, duration_ms=2.5)",
    "tracker.record_success(NAME)",
    "tracker.record_error('a', 'boom')",
    "tracker.record_error(NAME, ERROR)",
    "tracker.is_disabled('a')",
    "tracker.is_disabled(NAME)",
    "tracker.get_health_summary()",
    "tracker._usage_rows(NAME)",
    "tracker.has_unsaved_changes, tracker.cooldown_s",
    "tracker.flush()",
    "tracker.flush()",
    "tracker._flush_health()",
    "tracker._load(), tracker._load_usage()",
    "tracker.__init__(tracker._repo, limits)",
    "clock.now += STEP",
    "clock.now += STEP",
    "db.answers.update(fetchall=ROWS)",
    "health._known(NAME, ACTION), health._epoch(TIME), health._sqlite_time(NUMBER)",
    "health.thread_census_report(NUMBER, hosts.ThreadCensus(NUMBER, NUMBER, {NAME: 1}))",
]
HOSTILE = [
    "tracker._state[NAME].FIELD = NUMBER",
    "tracker._state[NAME].FIELD = ERROR",
    "tracker._state[NAME] = health._ToolState(NUMBER, NUMBER, ERROR, NUMBER, NUMBER)",
    "tracker._state[NAME] = Odd(FIELD=NUMBER)",
    "tracker._usage[KEY].FIELD = NUMBER",
    "tracker._usage[KEY] = health._Usage(NUMBER, NUMBER, NUMBER)",
    "tracker._usage[KEY] = Odd(FIELD=NUMBER, calls=1, timed_calls=2)",
    "tracker._usage_dirty = NUMBER",
    "tracker._dirty.add(NAME)",
    "clock.now = CLOCK",
    "limits.disable_after_errors = NUMBER",
    "limits.disable_cooldown_s = NUMBER",
    "db.answers.update(execute=FAILURE, executemany=FAILURE)",
    "health.TOOLS = {'a': health}",
]
POOLS = {  # the first half of each is what is usual
    "NAME": "'a' 'a' 'a' 'b' 'b' 'c' 'zz' '' 'é' '\\ud800' None 1 ('x',) [] Odd()",
    "ACTION": "None None 'text' 'text' 'é' '' 'None' 5 []",
    "OUTCOME": "'ok' 'ok' 'ok' 'error' None 3",
    "ALIAS": "False False True True 0 None 'x'",
    "KEY": "('a','text','ok',False) ('a',None,'ok',False) (NAME,ACTION,OUTCOME,ALIAS)",
    "FIELD": "call_count calls error_count timed_calls last_error disabled_at updated_at total_ms",
    "NUMBER": "0 1 3 -2 0.5 None 2.675 0.0625 1e300 -0.0 True '7' 'x' nan inf 10**30 -10**400 []",
    "ERROR": "'boom' 'boom' '' None 'x'*501 5 0 b'z'*600 ['l']*501 '\\U0001f600'*501",
    "TIME": "None 0 '2023-11-14\\t22:13:20' '2023-1-5\\t3:4:5' '2023-02-30\\t0:0:0' '5' 5 b'x'",
    "STEP": "1 60 0.3 -5 1e6",
    "CLOCK": "nan inf 1e18 None 'late' OSError('clock') KeyboardInterrupt('clock') -62135596800.0",
    "FAILURE": "None OSError('broken') KeyboardInterrupt('stop') lambda*_:tracker.flush()",
    "ROWS": "[ROW,ROW,ROW] [ROW,ROW] [ROW] [ROW,5] OSError('broken') None",
    "ROW": "(NAME,NUMBER,NUMBER,ERROR,TIME,TIME) ('a',3,3,'boom',TIME,TIME)",
}
WORD = re.compile(rf"\b(?:{'|'.join(POOLS)})\b")


# A foreign object: no number, no text, not hashable, with only the attributes it is given.
class Odd(types.SimpleNamespace):
    __eq__ = None


# The steps of a seed; those of an even one are without the hostile ones.
def program(seed):
    dice, steps = random.Random(seed), []
    while len(steps) < 40:
        step = dice.choice(HOSTILE if seed % 2 and dice.random() < 0.2 else USUAL)
        while word := WORD.search(step):
            pool = POOLS[word[0]].split()
            usual = pool[:len(pool) // 2 + 1]
            value = dice.choice(usual if dice.random() < 0.8 else pool)
            step = step[:word.start()] + value + step[word.end():]
        steps.append(step)
    return steps


# What can be seen after each step.
def trace(world, steps):
    world.reset()
    names = {"nan": float("nan"), "inf": float("inf"), "Odd": Odd, "hosts": hosts}
    names |= {name: getattr(world, name) for name in ("health", "tracker", "clock", "limits", "db")}
    seen = []
    for step in steps:
        mode = "exec" if re.match(r"[^(]* \+?= ", step) else "eval"
        world.db.calls.clear()
        world.warnings.clear()
        seen.append(world.told(lambda: eval(compile(step, step, mode), names)))
        if world.tracker._lock.locked():  # the next step would wait for ever
            break
    return seen


class AgainstPlain(unittest.TestCase):
    def test_random_programs(self):
        with World("module_world", hosts.MODULE) as module, World("plain_world", hosts.PLAIN) as plain:
            for seed in range(FIRST, FIRST + COUNT):
                steps = program(seed)
                if trace(module, steps) == trace(plain, steps):
                    continue
                for left_out in reversed(range(len(steps))):
                    fewer = steps[:left_out] + steps[left_out + 1:]
                    if trace(module, fewer) != trace(plain, fewer):
                        steps = fewer
                told = zip(steps, trace(module, steps), trace(plain, steps))
                step, module_told, plain_told = next(it for it in told if it[1] != it[2])
                self.fail(f"seed {seed} differs at {step!r} of\n  " + "\n  ".join(steps)
                          + f"\nmodule: {module_told}\nplain:  {plain_told}")
