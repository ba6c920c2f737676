"""The training processes: one, several on this machine (--jobs), or many under torchrun.

By default each network trains whole in one process and only finished networks travel between
processes. Sharded (`--shard`), every process builds only its share of the training recordings;
each batch is drawn from the whole set by the same permutation in every process, each process
computes the loss terms of the batch's points it holds, and the gradients are summed across
processes (gloo all-reduce) before every process takes the same optimiser step. The loss is
normalised by counts over the whole batch, so the summed gradient is the one-process gradient up
to the order of float additions.
"""

import datetime
import os

import numpy as np
import torch
import torch.distributed as dist


# Longest a process waits for the others.
WAIT_HOURS = 48


class Group:
    """This process's rank among `world` training processes (a lone process is rank 0 of 1)."""

    def __init__(self, rank=0, world=1):
        self.rank, self.world = rank, world

    @classmethod
    def from_environment(cls):
        """The group torchrun (or --jobs) started: RANK, WORLD_SIZE, MASTER_ADDR and MASTER_PORT in the
        environment. Without them, one process."""
        world = int(os.environ.get("WORLD_SIZE", "1"))
        if world <= 1:
            return cls()
        if not dist.is_initialized():
            # A process may wait for another's whole network (side by side, or the first process
            # training alone), far beyond gloo's default half hour.
            dist.init_process_group("gloo", timeout=datetime.timedelta(hours=WAIT_HOURS))
        return cls(dist.get_rank(), dist.get_world_size())

    @property
    def leader(self):
        return self.rank == 0

    def sum(self, array):
        """Elementwise sum over the processes of a numpy array (float64 or float32)."""
        if self.world == 1:
            return array
        t = torch.from_numpy(np.ascontiguousarray(array))
        dist.all_reduce(t, op=dist.ReduceOp.SUM)
        return t.numpy()

    def sum_gradients(self, params):
        """Adds every process's gradients into every process's, in one all-reduce."""
        if self.world == 1:
            return
        grads = [p.grad for p in params]
        flat = torch.cat([g.reshape(-1) for g in grads])
        dist.all_reduce(flat, op=dist.ReduceOp.SUM)
        pos = 0
        for g in grads:
            g.copy_(flat[pos:pos + g.numel()].view_as(g))
            pos += g.numel()

    def broadcast_object(self, obj, src=0):
        """Process `src`'s object in every process."""
        if self.world == 1:
            return obj
        box = [obj]
        dist.broadcast_object_list(box, src=src)
        return box[0]

    def close(self):
        """Waits for every process, then leaves the group: a process that exits with the group still
        open aborts in gloo's threads."""
        if self.world > 1:
            dist.barrier()
            dist.destroy_process_group()

    def owners(self, sizes):
        """Rank owning each recording: largest first to the least loaded rank, so shares are even
        whatever the order of the files; the same in every process."""
        load = np.zeros(self.world)
        owner = np.zeros(len(sizes), np.int64)
        for j in sorted(range(len(sizes)), key=lambda j: (-sizes[j], j)):
            owner[j] = int(np.argmin(load))
            load[owner[j]] += sizes[j]
        return owner


class Layout:
    """Where the points of the whole training set are: the whole set is the recordings' blocks in
    recording order; this process holds the blocks of its recordings, in the same order."""

    def __init__(self, group, counts, owner):
        self.group = group
        self.total = int(counts.sum())
        start = np.concatenate([[0], np.cumsum(counts)[:-1]])
        mine = owner == group.rank
        self.local_count = int(counts[mine].sum())
        # Global index -> index in this process's arrays (-1: held by another process).
        self.local_of = np.full(self.total, -1, np.int64)
        pos = 0
        for j in np.flatnonzero(mine):
            self.local_of[start[j]:start[j] + counts[j]] = np.arange(pos, pos + counts[j])
            pos += counts[j]
        self.global_of = np.flatnonzero(self.local_of >= 0)

    @classmethod
    def single(cls, count):
        return cls(Group(), np.array([count], np.int64), np.zeros(1, np.int64))

    def epoch_order(self, perm, batch):
        """(this process's local indices in the order of the permutation, and where each global
        batch starts among them: [batches + 1]). Gathering the points in that order once per epoch
        makes every batch a contiguous slice instead of a gather per step."""
        local = self.local_of[perm]
        held = local >= 0
        starts = np.arange(0, self.total, batch)
        per_batch = np.add.reduceat(held.astype(np.int64), starts) if self.total else np.zeros(0, np.int64)
        return local[held], np.concatenate([[0], np.cumsum(per_batch)]).astype(np.int64)

    def batch_counts(self, perm, batch, valid):
        """[batches, P + 1]: per global batch, the valid targets per horizon and the points, summed
        over the processes (one all-reduce per epoch instead of one per step)."""
        n_batches = (self.total + batch - 1) // batch
        where = np.empty(self.total, np.int64)
        where[perm] = np.arange(self.total) // batch
        b = where[self.global_of]
        counts = np.zeros((n_batches, valid.shape[1] + 1))
        for h in range(valid.shape[1]):
            counts[:, h] = np.bincount(b, weights=valid[:, h].astype(np.float64), minlength=n_batches)
        counts[:, -1] = np.bincount(b, minlength=n_batches)
        return self.group.sum(counts)

    def sample(self, stride):
        """Global indices of every stride-th point, and which of them this process holds."""
        idx = np.arange(0, self.total, stride)
        return idx, self.local_of[idx]
