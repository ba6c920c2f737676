// The drawing of the replay report: reads the data the page embeds (id "replay-data"; its stroke
// encoding is described in HtmlReport.h), lets the reader choose a recording, a stroke and the batches
// shown, and draws each predictor's points in the predictor's own colour with the true positions.
// Sets data-rendered on the body (the points drawn) each time it draws; the address's fragment
// (#recording=R&stroke=S&start=B&size=N&every=E, counted from 1
// but start) opens a given view.
#pragma once

namespace replay {

inline const char* const reportDrawingScript = R"JS(
(function () {
  'use strict';
  const data = JSON.parse(document.getElementById('replay-data').textContent);
  const $ = (id) => document.getElementById(id);
  const recordingSelect = $('recording'), strokeInput = $('stroke'), strokeSlider = $('stroke-slider');
  const windowSize = $('window-size'), windowStart = $('window-start'), every = $('every');
  const state = {span: 0};
  const canvas = $('drawing'), info = $('stroke-info');
  const K = data.horizons.length;
  const shown = {truth: true, predictors: data.predictors.map(() => true), horizons: data.horizons.map(() => true)};

  data.recordings.forEach((r, i) => {
    const option = document.createElement('option');
    option.value = String(i);
    option.textContent = r.name + ' (' + r.strokes.length + ' strokes)';
    recordingSelect.appendChild(option);
  });
  function swatch(colour) {
    const i = document.createElement('i');
    i.style.background = colour;
    return i;
  }
  function toggle(parent, text, colour, key, onChange) {
    const label = document.createElement('label');
    const box = document.createElement('input');
    box.type = 'checkbox';
    box.checked = true;
    if (key) box.id = 'show-' + key;
    box.addEventListener('change', () => { onChange(box.checked); render(); });
    label.appendChild(box);
    if (colour) label.appendChild(swatch(colour));
    label.appendChild(document.createTextNode(text));
    parent.appendChild(label);
  }
  const predictorLegend = $('predictor-legend');
  data.predictors.forEach((p, i) => {
    toggle(predictorLegend, p.name, p.colour, p.key, (on) => { shown.predictors[i] = on; });
    predictorLegend.lastChild.querySelector('i').setAttribute('data-predictor', p.key);
  });
  toggle(predictorLegend, 'true position', '#000', 'truth', (on) => { shown.truth = on; });
  data.horizons.forEach((ms, k) => {
    toggle($('horizon-legend'), '+' + ms + ' ms', null, 'horizon-' + (k + 1), (on) => { shown.horizons[k] = on; });
  });

  // One stroke decoded at a time: the page holds every stroke as text.
  let cached = null;
  // Zigzag varints in base64 (PackedNumbers.h); arithmetic rather than bit operators, which cut at 32 bits.
  function numbers(text) {
    const bytes = atob(text), values = [];
    let value = 0, scale = 1;
    for (let i = 0; i < bytes.length; i++) {
      const byte = bytes.charCodeAt(i);
      value += (byte % 128) * scale;
      if (byte >= 128) {
        scale *= 128;
        continue;
      }
      values.push(value % 2 === 1 ? -(value + 1) / 2 : value / 2);
      value = 0;
      scale = 1;
    }
    return values;
  }
  function decode(r, s) {
    if (cached && cached.r === r && cached.s === s) return cached.stroke;
    const raw = data.recordings[r].strokes[s];
    const u = data.unit;
    const dt = numbers(raw[2]), dxy = numbers(raw[3]), b = numbers(raw[4]);
    const t = [], x = [], y = [];
    let qt = 0, qx = 0, qy = 0;
    for (let i = 0; i < dt.length; i++) {
      qt += dt[i]; qx += dxy[2 * i]; qy += dxy[2 * i + 1];
      t.push(qt); x.push(qx * u); y.push(qy * u);
    }
    const batches = [];
    let at = 0, base = 0;
    while (at < b.length) {
      base += b[at];
      const count = b[at + 1];
      at += 2;
      const baseX = Math.round(x[base] / u), baseY = Math.round(y[base] / u);
      const points = [];
      for (let j = 0; j < count; j++) {
        const head = b[at++];
        const k = head % (K + 1), rest = Math.floor(head / (K + 1));
        const where = rest % 4, mask = Math.floor(rest / 4);
        let fromX = baseX, fromY = baseY, truth = null;
        if (where === 0 || where === 2) {
          fromX = baseX + b[at]; fromY = baseY + b[at + 1];
          truth = [fromX * u, fromY * u];
          at += 2;
        }
        const guesses = data.predictors.map((p, i) => {
          if (!(mask & (1 << i))) return null;
          const g = [(fromX + b[at]) * u, (fromY + b[at + 1]) * u];
          at += 2;
          return g;
        });
        points.push({k: k, where: where, truth: truth, guesses: guesses});
      }
      batches.push({base: base, points: points});
    }
    cached = {r: r, s: s, stroke: {t: t, x: x, y: y, batches: batches}};
    return cached.stroke;
  }

  // For tests and the console: a stroke as drawn, positions in pixels.
  window.replayStroke = (r, s) => decode(r, s);

  const view = {zoom: 1, x: null, y: null, toData: null};
  function resetView() { view.zoom = 1; view.x = null; view.y = null; }
  canvas.addEventListener('click', (e) => {
    if (!view.toData) return;
    const rect = canvas.getBoundingClientRect();
    const p = view.toData(e.clientX - rect.left, e.clientY - rect.top);
    view.x = p[0];
    view.y = p[1];
    view.zoom = e.shiftKey ? Math.max(view.zoom / 2, 1 / 16) : Math.min(view.zoom * 2, 256);
    render();
  });

  function recordingIndex() { return Number(recordingSelect.value) || 0; }
  function strokeCount() { return data.recordings.length ? data.recordings[recordingIndex()].strokes.length : 0; }
  function strokeIndex() {
    const n = strokeCount();
    const i = Math.min(Math.max(1, Math.round(Number(strokeInput.value) || 1)), Math.max(1, n));
    strokeInput.value = String(i);
    strokeSlider.value = String(i);
    return i - 1;
  }

  function marker(ctx, shape, x, y, size, colour) {
    ctx.beginPath();
    if (shape === 'dot') {
      ctx.arc(x, y, size, 0, 2 * Math.PI);
    } else if (shape === 'square') {
      ctx.rect(x - size * 0.9, y - size * 0.9, size * 1.8, size * 1.8);
    } else if (shape === 'diamond') {
      ctx.moveTo(x, y - size * 1.3); ctx.lineTo(x + size * 1.3, y); ctx.lineTo(x, y + size * 1.3);
      ctx.lineTo(x - size * 1.3, y); ctx.closePath();
    } else if (shape === 'triangle') {
      ctx.moveTo(x, y - size * 1.3); ctx.lineTo(x + size * 1.2, y + size * 0.9); ctx.lineTo(x - size * 1.2, y + size * 0.9);
      ctx.closePath();
    } else {
      for (let i = 0; i < 10; i++) {
        const a = Math.PI * i / 5 - Math.PI / 2, r = i % 2 ? size * 0.6 : size * 1.4;
        if (i === 0) ctx.moveTo(x + r * Math.cos(a), y + r * Math.sin(a)); else ctx.lineTo(x + r * Math.cos(a), y + r * Math.sin(a));
      }
      ctx.closePath();
    }
    ctx.fillStyle = colour;
    ctx.fill();
  }

  function updateAddress(r, s, start, size, step) {
    const hash = '#recording=' + (r + 1) + '&stroke=' + (s + 1) + '&start=' + start + '&size=' + size + '&every=' + step;
    if (window.history && window.history.replaceState && location.hash !== hash) {
      try { window.history.replaceState(null, '', hash); } catch (e) { /* a file: page may refuse */ }
    }
  }

  function render() {
    const ratio = window.devicePixelRatio || 1;
    const width = canvas.clientWidth || 960, height = canvas.clientHeight || 560;
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
    const ctx = canvas.getContext('2d');
    ctx.setTransform(ratio, 0, 0, ratio, 0, 0);
    ctx.clearRect(0, 0, width, height);
    const n = strokeCount();
    $('stroke-count').textContent = String(n);
    strokeInput.max = String(Math.max(1, n));
    strokeSlider.max = String(Math.max(1, n));
    if (n === 0) {
      info.textContent = 'This recording has no stroke.';
      document.body.setAttribute('data-rendered', '0');
      return;
    }
    const r = recordingIndex(), si = strokeIndex();
    const s = decode(r, si);
    // Batches a prediction horizon apart by default, so that one batch's predictions do not lie over
    // the next one's: at a high sample rate each batch is only a few ms after the one before.
    const maxHorizon = data.horizons[K - 1] || 0;
    const interval = s.batches.length > 1 ?
      (s.t[s.batches[s.batches.length - 1].base] - s.t[s.batches[0].base]) / (s.batches.length - 1) : 0;
    const step = Number(every.value) > 0 ? Number(every.value) :
      Math.max(1, interval > 0 ? Math.ceil(maxHorizon / interval - 0.05) : 1);
    const wanted = Number(windowSize.value) > 0 ? Number(windowSize.value) : Infinity;
    const span = Math.min(s.batches.length, wanted === Infinity ? s.batches.length : (wanted - 1) * step + 1);
    const lastStart = Math.max(0, s.batches.length - span);
    windowStart.max = String(lastStart);
    const start = Math.min(Math.max(0, Math.round(Number(windowStart.value) || 0)), lastStart);
    windowStart.value = String(start);
    const batches = [];
    for (let i = start; i < start + span; i += step) batches.push(s.batches[i]);
    // The samples from a horizon before the first batch shown to a horizon after the last one.
    let firstSample = 0, lastSample = s.x.length - 1;
    if (batches.length > 0 && span < s.batches.length) {
      const from = s.t[batches[0].base] - maxHorizon, to = s.t[batches[batches.length - 1].base] + maxHorizon;
      while (firstSample < batches[0].base && s.t[firstSample] < from) firstSample++;
      lastSample = batches[batches.length - 1].base;
      while (lastSample < s.x.length - 1 && s.t[lastSample] < to) lastSample++;
    }
    state.span = span;
    updateAddress(r, si, start, Number(windowSize.value), Number(every.value));

    // The view fits the samples shown and the model's points; a baseline that shoots far off is cut.
    let minX = Infinity, minY = Infinity, maxX = -Infinity, maxY = -Infinity;
    const grow = (p) => {
      if (!p) return;
      minX = Math.min(minX, p[0]); maxX = Math.max(maxX, p[0]); minY = Math.min(minY, p[1]); maxY = Math.max(maxY, p[1]);
    };
    for (let i = firstSample; i <= lastSample; i++) grow([s.x[i], s.y[i]]);
    batches.forEach((b) => b.points.forEach((p) => { grow(p.truth); grow(p.guesses[0]); }));
    const pad = 28;
    const scale = view.zoom * Math.min((width - 2 * pad) / Math.max(maxX - minX, 1),
                                       (height - 2 * pad) / Math.max(maxY - minY, 1));
    const centreX = view.x === null ? (minX + maxX) / 2 : view.x;
    const centreY = view.y === null ? (minY + maxY) / 2 : view.y;
    const X = (x) => width / 2 + (x - centreX) * scale, Y = (y) => height / 2 + (y - centreY) * scale;
    view.toData = (px, py) => [centreX + (px - width / 2) / scale, centreY + (py - height / 2) / scale];

    const path = (from, to, colour, lineWidth) => {
      ctx.strokeStyle = colour;
      ctx.lineWidth = lineWidth;
      ctx.beginPath();
      for (let i = from; i <= to; i++) {
        if (i === from) ctx.moveTo(X(s.x[i]), Y(s.y[i])); else ctx.lineTo(X(s.x[i]), Y(s.y[i]));
      }
      ctx.stroke();
    };
    path(0, s.x.length - 1, '#d6d3cc', 1);
    path(firstSample, lastSample, '#333', 1);
    // Sample dots only where they stand apart.
    const spacing = (lastSample - firstSample) > 0 ?
      Math.hypot(X(s.x[lastSample]) - X(s.x[firstSample]), Y(s.y[lastSample]) - Y(s.y[firstSample])) / (lastSample - firstSample) : 0;
    if (spacing > 6 || view.zoom > 2) {
      ctx.fillStyle = '#333';
      for (let i = firstSample; i <= lastSample; i++) ctx.fillRect(X(s.x[i]) - 1, Y(s.y[i]) - 1, 2, 2);
    }

    let drawn = 0, delivered = 0, pastEnd = 0, droppedInside = 0, droppedPastEnd = 0;
    const radius = (k) => 1.6 + 2.2 * k / K;
    // Baselines under the model, truth on top.
    for (let i = data.predictors.length - 1; i >= 0; i--) {
      if (!shown.predictors[i]) continue;
      const colour = data.predictors[i].colour;
      batches.forEach((b) => {
        ctx.globalAlpha = 0.55;
        ctx.strokeStyle = colour;
        ctx.lineWidth = 0.8;
        ctx.beginPath();
        ctx.moveTo(X(s.x[b.base]), Y(s.y[b.base]));
        b.points.forEach((p) => {
          if (shown.horizons[p.k - 1] && p.guesses[i]) ctx.lineTo(X(p.guesses[i][0]), Y(p.guesses[i][1]));
        });
        ctx.stroke();
        ctx.globalAlpha = 1;
        b.points.forEach((p) => {
          if (!shown.horizons[p.k - 1] || !p.guesses[i]) return;
          marker(ctx, data.predictors[i].marker, X(p.guesses[i][0]), Y(p.guesses[i][1]), radius(p.k), colour);
          drawn += 1;
        });
      });
    }
    batches.forEach((b) => b.points.forEach((p) => {
      if (!shown.horizons[p.k - 1]) return;
      if (p.where === 0 || p.where === 1) delivered += 1;
      if (p.where === 1) pastEnd += 1;
      if (p.where === 2) droppedInside += 1;
      if (p.where === 3) droppedPastEnd += 1;
      if (!shown.truth || !p.truth) return;
      ctx.strokeStyle = '#000';
      ctx.lineWidth = 1;
      ctx.beginPath();
      if (p.where === 2) {
        const x = X(p.truth[0]), y = Y(p.truth[1]), d = radius(p.k);
        ctx.moveTo(x - d, y - d); ctx.lineTo(x + d, y + d); ctx.moveTo(x + d, y - d); ctx.lineTo(x - d, y + d);
      } else {
        ctx.arc(X(p.truth[0]), Y(p.truth[1]), radius(p.k) + 1, 0, 2 * Math.PI);
        if (p.guesses[0] && shown.predictors[0]) {
          ctx.moveTo(X(p.truth[0]), Y(p.truth[1]));
          ctx.lineTo(X(p.guesses[0][0]), Y(p.guesses[0][1]));
        }
      }
      ctx.stroke();
      drawn += 1;
    }));

    const ms = s.t.length > 1 ? s.t[s.t.length - 1] - s.t[0] : 0;
    const rate = ms > 0 ? Math.round((s.t.length - 1) * 1000 / ms) : 0;
    info.textContent = data.recordings[r].name + ', stroke ' + (si + 1) + ' of ' + n + ': ' + s.x.length +
      ' samples over ' + ms + ' ms' + (rate ? ' (' + rate + ' Hz)' : '') + '; batches ' +
      (batches.length ? start + 1 : 0) + '-' + (start + span) + ' of ' + s.batches.length + ', every ' +
      (step === 1 ? '' : step === 2 ? '2nd ' : step === 3 ? '3rd ' : step + 'th ') + 'one shown (' + batches.length + '): ' +
      delivered + ' predicted points (' + pastEnd + ' past the end), ' + droppedInside +
      ' dropped inside the stroke, ' + droppedPastEnd + ' dropped past its end.';
    document.body.setAttribute('data-rendered', String(drawn));
  }

  function showStroke(i) {
    strokeInput.value = String(i);
    windowStart.value = '0';
    resetView();
    render();
  }
  function moveWindow(by) {
    windowStart.value = String(Math.max(0, Number(windowStart.value) + by * Math.max(1, Math.floor(state.span / 2))));
    resetView();
    render();
  }
  $('first').addEventListener('click', () => showStroke(1));
  $('previous').addEventListener('click', () => showStroke(Number(strokeInput.value) - 1));
  $('next').addEventListener('click', () => showStroke(Number(strokeInput.value) + 1));
  $('last').addEventListener('click', () => showStroke(strokeCount()));
  strokeInput.addEventListener('change', () => showStroke(strokeInput.value));
  strokeSlider.addEventListener('input', () => showStroke(strokeSlider.value));
  recordingSelect.addEventListener('change', () => showStroke(1));
  windowSize.addEventListener('change', () => { resetView(); render(); });
  every.addEventListener('change', () => { resetView(); render(); });
  windowStart.addEventListener('input', () => { resetView(); render(); });
  $('window-back').addEventListener('click', () => moveWindow(-1));
  $('window-on').addEventListener('click', () => moveWindow(1));
  $('zoom-in').addEventListener('click', () => { view.zoom = Math.min(view.zoom * 2, 256); render(); });
  $('zoom-out').addEventListener('click', () => { view.zoom = Math.max(view.zoom / 2, 1 / 16); render(); });
  $('fit').addEventListener('click', () => { resetView(); render(); });
  window.addEventListener('resize', render);

  const asked = {};
  location.hash.replace(/^#/, '').split('&').forEach((part) => {
    const kv = part.split('=');
    if (kv.length === 2) asked[kv[0]] = kv[1];
  });
  if (asked.recording && Number(asked.recording) >= 1 && Number(asked.recording) <= data.recordings.length) {
    recordingSelect.value = String(Number(asked.recording) - 1);
  }
  if (asked.size && windowSize.querySelector('option[value="' + Number(asked.size) + '"]')) {
    windowSize.value = String(Number(asked.size));
  }
  if (asked.every && every.querySelector('option[value="' + Number(asked.every) + '"]')) {
    every.value = String(Number(asked.every));
  }
  if (asked.stroke) strokeInput.value = asked.stroke === 'last' ? String(strokeCount()) : asked.stroke;
  if (asked.start) {
    windowStart.max = asked.start;
    windowStart.value = asked.start;
  }
  render();
})();
)JS";

}  // namespace replay
