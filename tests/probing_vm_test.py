"""What probes measure of a network with known delay, jitter and loss: probing_vm_test.py BUILD_DIR
SOURCE_DIR, in the virtual machine of `scripts/vm --exact`, which has netem and a clock that the load
of this machine does not disturb."""
import json
import tempfile

from products import LabCase, await_, main

tempfile.tempdir = "/run"  # the root is an overlay
interval, count = 10, 1000  # ms, probes of a window


class ProbingVmTest(LabCase):
    network = {}

    def netem(self, provider, to, quality):
        self.lab.run(provider, "tc", "qdisc", "add", "dev", f"site{to}", "root", "netem",
                     *quality.split())

    def configure(self, multiplier):
        """Begins new windows, if the multiplier is another one."""
        for site in 1, 2:
            self.lab.configure(site, forwarding=self.lab.forwarding(site) | {"probe": {
                "interval": interval, "multiplier": multiplier, "window": interval * count}})

    def figures(self, provider):
        return await_("the window is full", lambda: next(
            (row for row in [self.lab.quality(1, provider, 2)] if row.get("samples") == count), None),
            every=1)  # looking costs time of the emulated processor

    def test_figures_are_those_of_the_network(self):
        self.configure(multiplier=100)
        for site in 1, 2:
            self.lab.start_agent(site)
        plain = self.figures("internet")
        # From 34 to 46 ms, evenly, so that some packets overtake others.
        self.netem("internet", 2, "delay 40ms 6ms")
        self.netem("internet", 1, "delay 20ms duplicate 50%")
        self.netem("mpls", 2, "loss 10%")
        self.configure(multiplier=99)
        await_("windows are new", every=1,
               condition=lambda: self.lab.quality(1, "mpls", 2).get("samples", count) < count)
        slow, lossy = self.figures("internet"), self.figures("mpls")
        print(json.dumps({"plain": plain, "slow": slow, "lossy": lossy}), flush=True)
        self.assertAlmostEqual(slow["rttMs"] - plain["rttMs"], 60, delta=0.2 + 0.02 * 60)
        # The mean distance of two numbers out of an interval is a third of its length.
        self.assertAlmostEqual(slow["jitterMs"] - plain["jitterMs"], 4, delta=0.4)
        self.assertEqual((slow["lossForward"], slow["lossBackward"]), (0, 0))
        self.assertAlmostEqual(lossy["lossForward"], 10, delta=4 * (10 * 90 / count) ** 0.5)
        self.assertEqual(lossy["lossBackward"], 0)


if __name__ == "__main__":
    main()
