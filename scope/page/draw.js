// SPDX-License-Identifier: Apache-2.0

// Draws a chart on its canvas.

const kManyPoints = 150;
const kMarkerReach = 4; // pixels
const kShade = '#8a93a033';

// Labels of a logarithmic axis: 1, 2 and 5 times each power of ten.
function logTick(value) {
  const leading = Number(value.toExponential().split('e')[0]);
  return leading === 1 || leading === 2 || leading === 5 ? shortNumber(value) : null;
}

// A colour from the page's style sheet.
function styleColour(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

function isDark() {
  return styleColour('color-scheme') === 'dark';
}

// The colour of a line, lighter on a dark background.
function onGround(colour) {
  if (!isDark()) return colour;
  const parts = colour.match(/[0-9a-f]{2}/g).map((part) => parseInt(part, 16));
  return `#${parts.map((part) => Math.round(part + (255 - part) * 0.35).toString(16).padStart(2, '0')).join('')}`;
}

// Adds an opacity (0 to 1) to "#rrggbb".
function withOpacity(colour, opacity) {
  return colour + Math.round(opacity * 255).toString(16).padStart(2, '0');
}

// A point between two gaps has no line, so it needs a marker.
function isAlone(points, at) {
  return (points[at - 1]?.y ?? null) === null && (points[at + 1]?.y ?? null) === null;
}

function dataset(series, chart) {
  const colour = onGround(series.colour);
  const isFew = series.points.length <= kManyPoints;
  const marked = series.loose || (series.marker && !chart.stepped && !chart.stacked && isFew);
  return {
    label: series.name,
    data: series.points,
    borderColor: withOpacity(colour, series.weight.opacity),
    backgroundColor: withOpacity(colour, chart.stacked ? 0.7 : 0.25),
    borderDash: series.dash,
    borderWidth: series.weight.width,
    fill: series.fill ? (chart.stacked ? 'stack' : 'origin') : false,
    stepped: Boolean(chart.stepped),
    pointStyle: series.marker,
    curve: series.curve,
    pointRadius: series.points.map((_, at) => (marked || isAlone(series.points, at) ? 2.5 : 0)),
    pointHitRadius: 6,
    spanGaps: false,
    showLine: !series.loose,
    clip: chart.x.whole ? kMarkerReach : undefined,
  };
}

// One entry for each group of lines, such as all runs of a side. A click hides or shows the group.
function legendOptions(chart) {
  const groups = chart.series.map(({group, name}) => group ?? name);
  const isFirst = ({datasetIndex}) => groups.indexOf(groups[datasetIndex]) === datasetIndex;
  const labels = {
    ...(chart.stacked ? {boxHeight: 7} : {boxHeight: 1, boxWidth: 36}),
    generateLabels: (drawn) => Chart.defaults.plugins.legend.labels.generateLabels(drawn).filter(isFirst)
        .map((label) => ({...label, text: groups[label.datasetIndex]})),
  };
  const onClick = (_, {datasetIndex}, {chart: drawn}) => {
    const isVisible = drawn.isDatasetVisible(datasetIndex);
    groups.forEach((group, i) => group === groups[datasetIndex] && drawn.setDatasetVisibility(i, !isVisible));
    drawn.update();
  };
  return {display: new Set(groups).size > 1, labels, onClick};
}

function axisOptions(axis) {
  return {
    type: axis.log ? 'logarithmic' : 'linear',
    title: {display: true, text: axis.title},
    grid: {color: styleColour('--grid'), borderColor: styleColour('--faint')},
    ticks: {
      callback: axis.log ? logTick : shortNumber, maxRotation: 0, includeBounds: false, precision: axis.whole ? 0 : undefined,
    },
  };
}

// Charts above each other have vertical axes of the same width, so that their seconds are above each other, too.
function alignAxes(chart, isStrip, x, y) {
  if (!isStrip && !chart.beneath?.length) return;
  y.afterFit = (axis) => { axis.width = Chart.defaults.font.size * 6; };
  if (!isStrip) return;
  x.title.display = x.ticks.display = false;
  y.ticks.maxTicksLimit = 4;
}

// Shades the warm-up behind everything else.
const kWarmUpShade = {
  id: 'warmUp',
  beforeDraw(drawn, _, {endS}) {
    if (endS === undefined) return;
    const {ctx, chartArea, scales} = drawn;
    ctx.save();
    ctx.fillStyle = kShade;
    ctx.fillRect(chartArea.left, chartArea.top, Math.min(scales.x.getPixelForValue(endS), chartArea.right) - chartArea.left,
        chartArea.height);
    ctx.restore();
  },
};

// Writes on a chart, with a rim in the colour of the ground so that lines behind it do not spoil it.
function writeOn(ctx, text, x, y) {
  ctx.save();
  ctx.setLineDash([]);
  ctx.lineWidth = 3;
  ctx.lineJoin = 'round';
  ctx.strokeStyle = styleColour('--card');
  ctx.strokeText(text, x, y);
  ctx.fillText(text, x, y);
  ctx.restore();
}

function drawLine(ctx, {x1, y1, x2, y2}) {
  ctx.beginPath();
  ctx.moveTo(x1, y1);
  ctx.lineTo(x2, y2);
  ctx.stroke();
}

// Draws a line with its text at each mark, such as the time of a warning.
const kWarningMarks = {
  id: 'warningMarks',
  afterDatasetsDraw(drawn, _, {marks}) {
    const {ctx} = drawn;
    ctx.save();
    ctx.setLineDash([3, 3]);
    ctx.font = markFont();
    const placed = placeMarks(drawn, marks);
    const colourOf = ({colour}) => (colour ? onGround(colour) : styleColour('--mark'));
    for (const mark of placed) {
      ctx.strokeStyle = colourOf(mark);
      drawLine(ctx, mark.line);
    }
    for (const mark of placed.filter(({box}) => box)) {
      ctx.fillStyle = colourOf(mark);
      writeOn(ctx, mark.text, mark.box.left, mark.box.top + 10);
    }
    ctx.restore();
  },
};

// Draws the interval of each point that has one, in both directions, as far as it is within the axes.
const kIntervalMarks = {
  id: 'intervalMarks',
  beforeDatasetsDraw(drawn) {
    const {ctx, chartArea: {left, top, width, height}} = drawn;
    ctx.save();
    ctx.beginPath();
    ctx.rect(left, top, width, height);
    ctx.clip();
    ctx.lineWidth = 1;
    for (const line of intervalLines(drawn)) {
      ctx.strokeStyle = line.colour;
      drawLine(ctx, line);
    }
    ctx.restore();
  },
};

// Writes the text of points beside them, as far as there is room.
const kPointTexts = {
  id: 'pointTexts',
  afterDatasetsDraw(drawn, _, {marks, rows}) {
    const {ctx} = drawn;
    const placed = placePointTexts(drawn, marks, rows);
    ctx.save();
    ctx.font = pointFont();
    ctx.fillStyle = styleColour('--ink');
    ctx.setLineDash([1, 2]);
    for (const {leader, colour} of placed) {
      ctx.strokeStyle = colour;
      if (leader) drawLine(ctx, leader);
    }
    for (const {text, box} of placed) writeOn(ctx, text, box.left + kTextRim, box.bottom - 2 * kTextRim);
    ctx.restore();
  },
};

function draw(canvas, chart, isStrip) {
  const x = {...axisOptions(chart.x), min: chart.x.min, max: chart.x.max};
  const y = {...axisOptions(chart.y), suggestedMax: chart.y.max, stacked: Boolean(chart.stacked)};
  if (!chart.y.log && !chart.y.free) y.beginAtZero = true;
  alignAxes(chart, isStrip, x, y);
  new Chart(canvas, {
    type: 'line',
    plugins: [kWarmUpShade, kWarningMarks, kIntervalMarks, kPointTexts],
    data: {datasets: chart.series.map((series) => dataset(series, chart))},
    options: {
      animation: false,
      maintainAspectRatio: false,
      interaction: {mode: 'nearest', axis: 'x', intersect: false},
      scales: {x, y},
      plugins: {
        warmUp: {endS: chart.warmupS},
        warningMarks: {marks: chart.marks ?? []},
        pointTexts: {marks: chart.marks ?? [], rows: chart.textRows ?? 1},
        legend: legendOptions(chart),
        tooltip: {
          callbacks: {
            title: (items) => `${chart.x.title.split(' (')[0]}: ${shortNumber(items[0].parsed.x)}`,
            label: ({dataset: {label}, parsed, raw}) => `${label}: ${shortNumber(parsed.y)}${raw.name ? ` (${raw.name})` : ''}`,
          },
        },
      },
    },
  });
}

// Draws the charts, and redraws them when the background changes between light, dark and paper.
function drawAll(charts) {
  const redraw = () => {
    Chart.defaults.font.family = getComputedStyle(document.body).fontFamily;
    Chart.defaults.font.size = document.documentElement.hasAttribute('data-print') ? 9 : 12;
    Chart.defaults.color = styleColour('--ink');
    const redrawOne = (chart, isStrip) => {
      const canvas = document.getElementById(chart.id);
      Chart.getChart(canvas)?.destroy();
      draw(canvas, chart, isStrip);
    };
    for (const chart of charts) {
      redrawOne(chart, false);
      for (const strip of chart.beneath ?? []) redrawOne(strip, true);
    }
  };
  const print = (isPrinting) => () => {
    document.documentElement.toggleAttribute('data-print', isPrinting);
    redraw();
  };
  redraw();
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', redraw);
  addEventListener('beforeprint', print(true));
  addEventListener('afterprint', print(false));
}

// Charts with titles. The text for screen readers begins with `about`. drawAll draws them after they are in the page.
function chartFigures(charts, about) {
  if (charts.length === 0) return [];
  const captioned = (chart, kind) => {
    const words = `${about}${chart.title}. Vertical: ${chart.y.title}. Horizontal: ${chart.x.title}.`;
    const canvas = el('canvas', {id: chart.id, role: 'img', 'aria-label': words});
    return [el('figcaption', {class: kind === 'plot strip' && 'minor'}, chart.title), el('div', {class: kind}, canvas)];
  };
  return el('div', {class: 'charts'}, charts.map((chart) => el('figure', {class: Boolean(chart.broad) && 'broad'},
      captioned(chart, chart.tall ? 'plot tall' : 'plot'), ...(chart.beneath ?? []).map((strip) => captioned(strip, 'plot strip')))));
}
