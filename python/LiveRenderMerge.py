"""One view rendered by several kindlets, for LiveRenderController's
Registry(merge=True), as kindlet-control --kindlets does it.

Each kindlet renders its own share of the samples (the path tracer's options
sampleOffset k and sampleStride N) and sends passes that hold the mean of its
samples so far in one scene state. The merge keeps one image per name: the
sample-weighted mean of each kindlet's newest pass of the newest scene state.
The first pass of a newer state drops the older state; passes of an older
state that come later are dropped. Until a kindlet has a full sample of the
new state, its quick first image (0 samples) is passed on as it is.
"""

import sys

import numpy

import LiveRenderImages


class ImageMerge(object):
    """Hands `deliver` a merged Image (session "merged", sequenceID 0, pid 0)
    for each pass that changes the view."""

    def __init__(self, deliver, log=None):
        self._deliver = deliver
        self._log = log
        self._images = {}  # name -> [sceneState, {(pid, session): Image}, passes handed on]

    def add(self, image):
        merged = self._images.setdefault(image.name, [image.sceneState, {}, 0])
        if image.sceneState < merged[0]:
            return  # its kindlet has not caught up yet
        if image.sceneState > merged[0]:
            merged[0], merged[1] = image.sceneState, {}
        contributions = merged[1]
        others = [c for c in contributions.values() if c.pixels.shape != image.pixels.shape]
        if others or (contributions and image.channels != next(iter(contributions.values())).channels):
            (self._log or sys.stderr).write(
                "LiveRenderController: image %s of session %s pid %d has another size or "
                "channels than the other kindlets'; left out\n" % (image.name, image.session, image.pid))
            return
        if image.samples == 0:
            if not contributions:
                self._handOn(merged, image, 0, image.pixels)
            return
        contributions[(image.pid, image.session)] = image
        self._handOn(merged, image, *self._mean(contributions.values()))

    def forget(self, pid, session):
        """The kindlet's session ended or is gone: it leaves the view."""
        for name, merged in self._images.items():
            if merged[1].pop((pid, session), None) is not None:
                (self._log or sys.stderr).write(
                    "LiveRenderController: session %s pid %d left the view; image %s goes on "
                    "from %d kindlets\n" % (session, pid, name, len(merged[1])))

    @staticmethod
    def _mean(contributions):
        samples = sum(c.samples for c in contributions)
        total = sum(c.pixels.astype(numpy.float32) * numpy.float32(c.samples) for c in contributions)
        return samples, total / numpy.float32(samples)

    def _handOn(self, merged, image, samples, pixels):
        merged[2] += 1
        self._deliver(LiveRenderImages.Image(
            session="merged", sequenceID=0, pid=0, name=image.name, image=image.image,
            channels=image.channels, pixelType=image.pixelType, passNumber=merged[2],
            samples=samples, sceneState=merged[0], pixels=pixels.astype(image.pixels.dtype)))
