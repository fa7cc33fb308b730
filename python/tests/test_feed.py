"""PoseFeed against the real simulator: poses arrive while Python does
other things, a reader predicts them to display times, the lock-taking calls
reach the same object, and a feed that cannot open says why."""
import threading

import pytest

import orvaccess
from conftest import write_ini


def wait_for(cond, timeout_s=30.0):
    """Polls cond until it holds; False after timeout_s (a broken feed, not a slow machine)."""
    deadline = orvaccess.get_time_ms() + timeout_s * 1000
    while not cond():
        if orvaccess.get_time_ms() > deadline:
            return False
        orvaccess.snooze_ms(1)
    return True


def test_the_feed_follows_the_tracker_and_predicts_to_display_times(start_sim):
    sim = start_sim("--nft-hz", "0")
    with orvaccess.PoseFeed(sim.ini) as feed:
        assert feed.running
        feed.stale_time_us = 60_000_000
        first = feed.latest()
        assert wait_for(lambda: feed.latest().sequence >= first.sequence + 20)
        latest = feed.latest()
        assert type(latest.pose) is orvaccess.TrkDataExt and not latest.stale and latest.age_us >= 0
        assert feed.service_error == ""
        # The watchdog's record: orvCore streams, nothing went wrong yet.
        assert wait_for(lambda: feed.recovery.state == orvaccess.FeedStream.ORVACCESS_FEED_FLOWING)
        recovery = feed.recovery
        assert type(recovery) is orvaccess.FeedRecovery and recovery.text == "tracking arriving"
        assert recovery.outages == recovery.recoveries == recovery.reopens == 0

        # Two render loops, each with its own reader, while Python sets the prediction.
        results, errors = [], []

        def render():
            try:
                reader = feed.reader()
                for _ in range(200):
                    p = reader.at_time(int(orvaccess.get_time_ms() * 1000) + 11_000)
                    results.append((p.sequence, p.pose.packetTag, p.prediction_s))
            except Exception as e:  # noqa: BLE001 - reported below
                errors.append(e)

        threads = [threading.Thread(target=render) for _ in range(2)]
        for t in threads:
            t.start()
        feed.set_prediction(0.01)
        for t in threads:
            t.join()
        assert not errors and len(results) == 400
        # Without virtual sync the interval is the fixed one: 0 or, once set, 0.01.
        assert {round(r[2], 6) for r in results} <= {0.0, 0.01}
        assert feed.latest().prediction_s == pytest.approx(0.01)
        assert isinstance(feed.error_codes(), list)

    assert not feed.running
    assert feed.recovery.state == orvaccess.FeedStream.ORVACCESS_FEED_STOPPED and feed.recovery.text == "stopped"
    kept = feed.latest()
    assert kept.pose is not None and kept.sequence >= latest.sequence
    feed.start()
    assert feed.running
    feed.stop()


def test_a_feed_that_cannot_open_says_why(tmp_path):
    ini = write_ini(tmp_path / "none.ini", {})
    with pytest.raises(orvaccess.Error) as e:
        orvaccess.PoseFeed(ini)
    assert e.value.text == "Unable to open any connections"
    assert "none.ini" in str(e.value)
