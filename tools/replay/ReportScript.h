// The drawing of the replay report: reads the data the page embeds (id "replay-data"), lets the reader
// choose a recording and a stroke, and draws every predicted point with its true position and both
// baselines' guesses. Sets data-rendered on the body once drawn.
#pragma once

namespace replay {

inline const char* const reportDrawingScript = R"JS(
(function () {
  'use strict';
  const data = JSON.parse(document.getElementById('replay-data').textContent);
  const recordingSelect = document.getElementById('recording');
  const strokeInput = document.getElementById('stroke');
  const canvas = document.getElementById('drawing');
  const info = document.getElementById('stroke-info');
  const shown = {model: true, truth: true, cv: true, ls: true, horizons: data.horizons.map(() => true)};

  data.recordings.forEach((r, i) => {
    const option = document.createElement('option');
    option.value = String(i);
    option.textContent = r.name + ' (' + r.strokes.length + ' of ' + r.strokeCount + ' strokes drawn)';
    recordingSelect.appendChild(option);
  });
  const horizonBoxes = document.getElementById('horizon-legend');
  data.horizons.forEach((ms, k) => {
    const label = document.createElement('label');
    const box = document.createElement('input');
    box.type = 'checkbox';
    box.checked = true;
    box.addEventListener('change', () => { shown.horizons[k] = box.checked; render(); });
    const swatch = document.createElement('i');
    swatch.style.background = data.colours[k % data.colours.length];
    label.appendChild(box);
    label.appendChild(swatch);
    label.appendChild(document.createTextNode('+' + ms + ' ms'));
    horizonBoxes.appendChild(label);
  });
  ['model', 'truth', 'cv', 'ls'].forEach((key) => {
    const box = document.getElementById('show-' + key);
    box.addEventListener('change', () => { shown[key] = box.checked; render(); });
  });

  // A click zooms in twice around the clicked point; "whole stroke" shows it all again.
  const view = {zoom: 1, x: null, y: null, toData: null};
  canvas.addEventListener('click', (e) => {
    if (!view.toData) return;
    const rect = canvas.getBoundingClientRect();
    const p = view.toData(e.clientX - rect.left, e.clientY - rect.top);
    view.x = p[0];
    view.y = p[1];
    view.zoom = Math.min(view.zoom * 2, 256);
    render();
  });
  function resetView() { view.zoom = 1; view.x = null; view.y = null; }
  document.getElementById('whole').addEventListener('click', () => { resetView(); render(); });

  function recording() { return data.recordings[Number(recordingSelect.value)]; }
  function stroke() {
    const r = recording();
    const i = Math.min(Math.max(1, Math.round(Number(strokeInput.value) || 1)), Math.max(1, r.strokes.length));
    strokeInput.value = String(i);
    strokeInput.max = String(r.strokes.length);
    return r.strokes[i - 1];
  }

  function marker(ctx, shape, x, y, size, colour) {
    ctx.beginPath();
    if (shape === 'dot') {
      ctx.arc(x, y, size, 0, 2 * Math.PI);
      ctx.fillStyle = colour;
      ctx.fill();
      return;
    }
    ctx.strokeStyle = colour;
    ctx.lineWidth = 1.5;
    if (shape === 'ring') {
      ctx.arc(x, y, size, 0, 2 * Math.PI);
    } else if (shape === 'square') {
      ctx.rect(x - size, y - size, 2 * size, 2 * size);
    } else if (shape === 'diamond') {
      ctx.moveTo(x, y - size * 1.3); ctx.lineTo(x + size * 1.3, y); ctx.lineTo(x, y + size * 1.3);
      ctx.lineTo(x - size * 1.3, y); ctx.closePath();
    } else if (shape === 'cross') {
      ctx.moveTo(x - size, y - size); ctx.lineTo(x + size, y + size);
      ctx.moveTo(x + size, y - size); ctx.lineTo(x - size, y + size);
    }
    ctx.stroke();
  }

  function render() {
    const r = recording();
    const s = stroke();
    const ratio = window.devicePixelRatio || 1;
    const width = canvas.clientWidth || 960, height = canvas.clientHeight || 560;
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
    const ctx = canvas.getContext('2d');
    ctx.setTransform(ratio, 0, 0, ratio, 0, 0);
    ctx.clearRect(0, 0, width, height);
    if (!s) {
      info.textContent = 'This recording has no stroke.';
      return 0;
    }
    // The view fits the stroke and the model's points; a baseline that shoots far off is cut.
    let minX = Infinity, minY = Infinity, maxX = -Infinity, maxY = -Infinity;
    const grow = (x, y) => {
      if (x === null || y === null) return;
      minX = Math.min(minX, x); maxX = Math.max(maxX, x); minY = Math.min(minY, y); maxY = Math.max(maxY, y);
    };
    for (let i = 0; i < s.xy.length; i += 2) grow(s.xy[i], s.xy[i + 1]);
    s.batches.forEach((b) => b[2].forEach((p) => grow(p[2], p[3])));
    const pad = 24;
    const scale = view.zoom * Math.min((width - 2 * pad) / Math.max(maxX - minX, 1),
                                       (height - 2 * pad) / Math.max(maxY - minY, 1));
    const centreX = view.x === null ? (minX + maxX) / 2 : view.x;
    const centreY = view.y === null ? (minY + maxY) / 2 : view.y;
    const X = (x) => width / 2 + (x - centreX) * scale, Y = (y) => height / 2 + (y - centreY) * scale;
    view.toData = (px, py) => [centreX + (px - width / 2) / scale, centreY + (py - height / 2) / scale];

    ctx.strokeStyle = '#222';
    ctx.lineWidth = 1.5;
    ctx.beginPath();
    for (let i = 0; i < s.xy.length; i += 2) {
      if (i === 0) ctx.moveTo(X(s.xy[i]), Y(s.xy[i + 1])); else ctx.lineTo(X(s.xy[i]), Y(s.xy[i + 1]));
    }
    ctx.stroke();
    ctx.fillStyle = '#222';
    for (let i = 0; i < s.xy.length; i += 2) {
      ctx.fillRect(X(s.xy[i]) - 1, Y(s.xy[i + 1]) - 1, 2, 2);
    }

    let drawn = 0, delivered = 0, pastEnd = 0, droppedInside = 0, droppedPastEnd = 0;
    s.batches.forEach((b) => {
      const points = b[2].filter((p) => shown.horizons[p[0] - 1]);
      if (shown.model) {
        ctx.strokeStyle = 'rgba(224, 123, 0, 0.45)';
        ctx.lineWidth = 1;
        ctx.beginPath();
        ctx.moveTo(X(b[0]), Y(b[1]));
        points.forEach((p) => { if (p[2] !== null) ctx.lineTo(X(p[2]), Y(p[3])); });
        ctx.stroke();
      }
      points.forEach((p) => {
        const colour = data.colours[(p[0] - 1) % data.colours.length];
        const where = p[1];
        if (where === 0 || where === 1) delivered += 1;
        if (where === 1) pastEnd += 1;
        if (where === 2) droppedInside += 1;
        if (where === 3) droppedPastEnd += 1;
        if (p[4] !== null && p[2] !== null && shown.truth && shown.model) {
          ctx.strokeStyle = 'rgba(0, 0, 0, 0.35)';
          ctx.lineWidth = 1;
          ctx.beginPath(); ctx.moveTo(X(p[4]), Y(p[5])); ctx.lineTo(X(p[2]), Y(p[3])); ctx.stroke();
        }
        if (shown.cv && p[6] !== null) marker(ctx, 'square', X(p[6]), Y(p[7]), 3, colour);
        if (shown.ls && p[8] !== null) marker(ctx, 'diamond', X(p[8]), Y(p[9]), 3, colour);
        if (shown.truth && p[4] !== null) {
          marker(ctx, where === 2 ? 'cross' : 'ring', X(p[4]), Y(p[5]), 4, where === 2 ? '#d00' : '#000');
        }
        if (shown.model && p[2] !== null) marker(ctx, 'dot', X(p[2]), Y(p[3]), 3, colour);
        drawn += 1;
      });
    });
    info.textContent = r.name + ', stroke ' + strokeInput.value + ' of ' + r.strokes.length + ' drawn (' +
      r.strokeCount + ' in the recording): ' + s.xy.length / 2 + ' samples, ' + delivered +
      ' predicted points shown (' + pastEnd + ' past the end), ' + droppedInside + ' dropped inside the stroke, ' +
      droppedPastEnd + ' dropped past its end.';
    return drawn;
  }

  function step(by) {
    strokeInput.value = String(Number(strokeInput.value) + by);
    resetView();
    render();
  }
  document.getElementById('previous').addEventListener('click', () => step(-1));
  document.getElementById('next').addEventListener('click', () => step(1));
  strokeInput.addEventListener('change', () => { resetView(); render(); });
  recordingSelect.addEventListener('change', () => { strokeInput.value = '1'; resetView(); render(); });
  window.addEventListener('resize', render);
  const drawnPoints = render();
  document.body.setAttribute('data-rendered', String(drawnPoints));
})();
)JS";

}  // namespace replay
