// Draws the charts that "chart-data" describes, each on the canvas of its name.
'use strict';

(() => {
  const kManyPoints = 150;

  // On a logarithmic axis: 1, 2 and 5 of each power of ten.
  function logTick(value) {
    const leading = Number(value.toExponential().split('e')[0]);
    return leading === 1 || leading === 2 || leading === 5 ? shortNumber(value) : null;
  }

  function shortNumber(value) {
    return Number(Number(value).toPrecision(4)).toLocaleString('en', {maximumFractionDigits: 6});
  }

  function dataset(series, spec) {
    const plain = !spec.stepped && !spec.stacked && series.dash.length === 0;
    const marked = plain && series.points.length <= kManyPoints;
    return {
      label: series.name,
      data: series.points.map(([x, y]) => ({x, y})),
      borderColor: series.colour,
      backgroundColor: series.colour + (spec.stacked ? 'b3' : '40'),
      borderDash: series.dash,
      borderWidth: 2,
      fill: series.fill ? (spec.stacked ? 'stack' : 'origin') : false,
      stepped: Boolean(spec.stepped),
      pointStyle: series.marker,
      pointRadius: marked ? 2.5 : 0,
      pointHitRadius: 6,
      spanGaps: false,
    };
  }

  function axis(title, logarithmic, limits) {
    return {
      type: logarithmic ? 'logarithmic' : 'linear',
      title: {display: true, text: title},
      ticks: {callback: logarithmic ? logTick : shortNumber, maxRotation: 0, includeBounds: false},
      ...limits,
    };
  }

  function draw(spec) {
    const x = axis(spec.xTitle, spec.xLog, {min: spec.xMin, max: spec.xMax});
    const y = axis(spec.yTitle, spec.yLog, {suggestedMax: spec.yMax, stacked: Boolean(spec.stacked)});
    if (!spec.yLog) y.beginAtZero = true;
    // Where dashes tell the lines apart the legend shows lines, elsewhere the points.
    const dashed = spec.series.some((series) => series.dash.length !== 0);
    const labels = dashed ? {boxHeight: 1, boxWidth: 32} : {boxHeight: 7, usePointStyle: !spec.stacked};
    new Chart(document.getElementById(spec.id), {
      type: 'line',
      data: {datasets: spec.series.map((series) => dataset(series, spec))},
      options: {
        animation: false,
        maintainAspectRatio: false,
        interaction: {mode: 'nearest', axis: 'x', intersect: false},
        scales: {x, y},
        plugins: {
          legend: {display: spec.series.length > 1, labels},
          tooltip: {
            callbacks: {
              title: (items) => `${spec.xTitle.split(' (')[0]}: ${shortNumber(items[0].parsed.x)}`,
              label: (item) => `${item.dataset.label}: ${shortNumber(item.parsed.y)}`,
            },
          },
        },
      },
    });
  }

  Chart.defaults.font.family = getComputedStyle(document.body).fontFamily;
  Chart.defaults.color = '#3c444c';
  JSON.parse(document.getElementById('chart-data').textContent).forEach(draw);
})();
