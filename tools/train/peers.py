"""Classical predictors a device maker would tune: constant-velocity and constant-acceleration
Kalman filters and least-squares line and parabola fits over a window, with damping.

Every peer sees the samples the library sees (a stroke's samples after its pen-down sample) and
predicts, at each prediction point of a Dataset, the displacement in mm from the newest sample at
every horizon. Each function evaluates a whole grid of parameters in one pass and hands the
predictions of one parameter set at a time to `visit(index, disp)`, so that a sweep keeps only
what it scores.
"""

import numpy as np

# Kalman filters in mm and ms. Only the ratio of process to measurement noise shapes the gain;
# the measurement noise is fixed and the process noise (white acceleration for constant velocity,
# white jerk for constant acceleration) is the tuned parameter.
KALMAN_R_MM2 = 0.0025
CV_Q_GRID = tuple(float(q) for q in np.logspace(-9, -3, 13))
CA_Q_GRID = tuple(float(q) for q in np.logspace(-12, -5, 15))
# Unknown velocity and acceleration at the first sample: variances far above any pen's.
KALMAN_V0_VAR = 1.0
KALMAN_A0_VAR = 0.01
LINE_WINDOWS = (2, 3, 4, 5, 6, 8, 10, 12, 16)
PARABOLA_WINDOWS = (3, 4, 5, 6, 8, 10, 12, 16, 20, 24, 32, 40)
DAMPINGS = (0.5, 0.6, 0.7, 0.8, 0.9, 1.0)


def seen_samples(ds):
    """Index (in the recording) of each prediction point's newest sample."""
    return ds.stroke + ds.pos


def fit_predictions(t, x, y, ds, horizons, degree, windows, dampings, visit, mm):
    """Least-squares line (degree 1) or parabola (degree 2) through the last W samples seen
    (fewer at the start of a stroke), evaluated at t + h; the extrapolation beyond the fit's value
    at the newest sample is scaled by the damping. With too few samples for the degree the fit
    drops to a line, then to standing still. visit(k, disp [K, P, 2]) for k over windows x dampings."""
    s = seen_samples(ds)
    avail = ds.pos  # samples of the stroke seen, the newest included (the pen-down one is not)
    k = len(s)
    m = np.zeros((k, 5))   # sums of tau^0 .. tau^4
    bx = np.zeros((k, 3))  # sums of tau^j * x
    by = np.zeros((k, 3))
    t0, x0, y0 = t[s], x[s], y[s]
    h = np.asarray(horizons, np.float64)
    wmax = max(windows)
    for lag in range(wmax):
        on = avail > lag
        j = np.where(on, s - lag, s)
        tau = np.where(on, t[j] - t0, 0.0)
        w = on.astype(np.float64)
        p = w.copy()
        for e in range(5):
            m[:, e] += p
            if e < 3:
                bx[:, e] += p * (x[j] - x0)
                by[:, e] += p * (y[j] - y0)
            p = p * tau
        if lag + 1 not in windows:
            continue
        n = np.minimum(avail, lag + 1)
        c = _solve(m, bx, by, n, degree)  # [K, 2, 3]: value, slope, curvature at the newest sample
        ext = c[:, :, 1, None] * h + c[:, :, 2, None] * h * h  # [K, 2, P]
        for d in dampings:
            disp = (c[:, :, 0, None] + d * ext).transpose(0, 2, 1) * mm
            visit((windows.index(lag + 1), dampings.index(d)), disp.astype(np.float32))


def _solve(m, bx, by, n, degree):
    """Per point, coefficients of the polynomial in tau (time from the newest sample) fitted to
    x and y, as [K, 2, 3] (constant, linear, quadratic)."""
    k = len(m)
    out = np.zeros((k, 2, 3))
    quad = (n >= 3) & (degree == 2)
    line = (n >= 2) & ~quad
    if quad.any():
        a = np.stack([m[quad][:, [0, 1, 2]], m[quad][:, [1, 2, 3]], m[quad][:, [2, 3, 4]]], axis=1)
        # Relative to the diagonal's product the determinant does not depend on the time unit.
        ok = np.abs(np.linalg.det(a)) > 1e-9 * a[:, 0, 0] * a[:, 1, 1] * a[:, 2, 2]
        rhs = np.stack([bx[quad], by[quad]], axis=2)
        sol = np.zeros((len(a), 3, 2))
        sol[ok] = np.linalg.solve(a[ok], rhs[ok])
        out[quad] = sol.transpose(0, 2, 1)
        # A degenerate parabola (repeated times) falls back to the line below.
        line[np.flatnonzero(quad)[~ok]] = True
    if line.any():
        mm = m[line]
        den = mm[:, 0] * mm[:, 2] - mm[:, 1] ** 2
        good = den > 1e-12
        for axis, b in enumerate((bx[line], by[line])):
            slope = np.where(good, (mm[:, 0] * b[:, 1] - mm[:, 1] * b[:, 0]) / np.where(good, den, 1.0), 0.0)
            icpt = np.where(good, (b[:, 0] - slope * mm[:, 1]) / mm[:, 0], 0.0)
            out[line, axis, 0] = icpt
            out[line, axis, 1] = slope
            out[line, axis, 2] = 0.0
    return out


def kalman_predictions(t, x, y, ds, horizons, order, q_grid, visit, mm, r=KALMAN_R_MM2):
    """Constant-velocity (order 1) or constant-acceleration (order 2) Kalman filter per stroke,
    every process noise of q_grid at once, started at the first sample seen with zero velocity
    and acceleration. visit(k, disp [K, P, 2]) for each index of q_grid."""
    s = seen_samples(ds)
    first = ds.stroke
    # Strokes by their first seen sample and length (in samples seen up to the last point).
    starts, inv = np.unique(first, return_inverse=True)
    length = np.zeros(len(starts), np.int64)
    np.maximum.at(length, inv, ds.pos)
    order_idx = np.argsort(-length, kind="stable")
    starts, length = starts[order_idx], length[order_idx]
    rank = np.empty_like(order_idx)
    rank[order_idx] = np.arange(len(order_idx))
    # Prediction point of (stroke rank, sample number), -1 where the library does not predict.
    point = {}
    stroke_rank = rank[inv]
    q = np.asarray(q_grid, np.float64)[:, None]
    g, ns = len(q_grid), len(starts)
    dim = order + 1
    state = np.zeros((g, ns, 2, dim))  # per axis: position, velocity(, acceleration)
    cov = np.zeros((g, ns, dim, dim))
    h = np.asarray(horizons, np.float64)
    p = len(h)
    out = np.zeros((g, len(s), p, 2), np.float32)
    # Points ordered by (sample number, stroke rank) so each step's points are one slice.
    step_of = ds.pos - 1
    sort = np.lexsort((stroke_rank, step_of))
    bounds = np.searchsorted(step_of[sort], np.arange(length.max() + 1 if ns else 1))
    for k in range(int(length.max()) if ns else 0):
        na = int(np.count_nonzero(length > k))  # strokes longer than k samples: a prefix
        idx = starts[:na] + 1 + k
        z = np.stack([x[idx], y[idx]], axis=1)
        if k == 0:
            state[:, :na] = 0.0
            state[:, :na, :, 0] = z
            cov[:, :na] = 0.0
            cov[:, :na, 0, 0] = r
            cov[:, :na, 1, 1] = KALMAN_V0_VAR
            if order == 2:
                cov[:, :na, 2, 2] = KALMAN_A0_VAR
        else:
            dt = np.maximum(t[idx] - t[idx - 1], 0.0)[None, :]
            st, cv = state[:, :na], cov[:, :na]
            f = _transition(dt, dim, g, na)
            st = np.einsum("gnij,gnaj->gnai", f, st)
            cv = f @ cv @ f.transpose(0, 1, 3, 2) + _process_noise(dt, q, dim)
            s_ = cv[:, :, 0, 0] + r
            gain = cv[:, :, :, 0] / s_[:, :, None]
            innov = z[None] - st[:, :, :, 0]
            st = st + gain[:, :, None, :] * innov[:, :, :, None]
            cv = cv - gain[:, :, :, None] * cv[:, :, 0, None, :]
            state[:, :na], cov[:, :na] = st, cv
        lo, hi = bounds[k], bounds[k + 1] if k + 1 < len(bounds) else len(sort)
        if hi > lo:
            pts = sort[lo:hi]
            st = state[:, stroke_rank[pts]]  # [g, n, 2, dim]
            pos = st[..., 0, None] + st[..., 1, None] * h
            if order == 2:
                pos = pos + 0.5 * st[..., 2, None] * h * h
            z = np.stack([x[s[pts]], y[s[pts]]], axis=1)
            out[:, pts] = ((pos - z[None, :, :, None]) * mm).transpose(0, 1, 3, 2)
    for i in range(g):
        visit((i,), out[i])


def _transition(dt, dim, g, na):
    f = np.zeros((g, na, dim, dim))
    dt = np.broadcast_to(dt, (g, na))
    for i in range(dim):
        f[:, :, i, i] = 1.0
    f[:, :, 0, 1] = dt
    if dim == 3:
        f[:, :, 1, 2] = dt
        f[:, :, 0, 2] = 0.5 * dt * dt
    return f


def _process_noise(dt, q, dim):
    """Discretised white acceleration (dim 2) or white jerk (dim 3) of spectral density q."""
    d = dt
    if dim == 2:
        m = [[d ** 3 / 3, d ** 2 / 2], [d ** 2 / 2, d]]
    else:
        m = [[d ** 5 / 20, d ** 4 / 8, d ** 3 / 6], [d ** 4 / 8, d ** 3 / 3, d ** 2 / 2],
             [d ** 3 / 6, d ** 2 / 2, d]]
    qm = np.stack([np.stack([np.broadcast_to(e, d.shape) for e in row], -1) for row in m], -2)
    return q[:, :, None, None] * qm


PEERS = {
    "kalman_cv": ("constant-velocity Kalman", lambda t, x, y, ds, h, visit, mm:
                  kalman_predictions(t, x, y, ds, h, 1, CV_Q_GRID, visit, mm), (CV_Q_GRID,)),
    "kalman_ca": ("constant-acceleration Kalman", lambda t, x, y, ds, h, visit, mm:
                  kalman_predictions(t, x, y, ds, h, 2, CA_Q_GRID, visit, mm), (CA_Q_GRID,)),
    "ls_linear": ("least-squares line", lambda t, x, y, ds, h, visit, mm:
                  fit_predictions(t, x, y, ds, h, 1, LINE_WINDOWS, DAMPINGS, visit, mm), (LINE_WINDOWS, DAMPINGS)),
    "ls_quadratic": ("least-squares parabola", lambda t, x, y, ds, h, visit, mm:
                     fit_predictions(t, x, y, ds, h, 2, PARABOLA_WINDOWS, DAMPINGS, visit, mm),
                     (PARABOLA_WINDOWS, DAMPINGS)),
}


def parameters(name, index):
    """Readable parameter set of a grid index."""
    grids = PEERS[name][2]
    if name.startswith("kalman"):
        return {"q": grids[0][index[0]], "r": KALMAN_R_MM2}
    return {"window": grids[0][index[0]], "damping": grids[1][index[1]]}
