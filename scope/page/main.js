// SPDX-License-Identifier: Apache-2.0

// Makes the page from its data, which scope/FORMAT.md describes.

const kPages = {report: showReport, compare: showComparison, sweep: showSweep, curves: showCurves, matrix: showMatrix, fleet: showFleet};
const kData = JSON.parse(document.getElementById('report-data').textContent);

// Fills the template. `figures` are the table of figures, which the explanations name.
function showPage({heading, title, heads, figures, sections, charts}) {
  document.title = `stress_scope: ${title}`;
  document.querySelector('h1').textContent = heading;
  document.querySelector('header').append(...heads);
  document.querySelector('main').prepend(...sections);
  document.getElementById('tool').textContent = kData.tool;
  const shown = [kData.margin ? 'margin' : kData.kind, ...(kData.comparison ? ['comparison'] : [])];
  for (const part of document.querySelectorAll('[data-pages]')) {
    if (!part.dataset.pages.split(' ').some((page) => shown.includes(page))) part.remove();
  }
  for (const term of document.querySelectorAll('dt[data-figures]')) {
    const names = term.dataset.figures.split(' ');
    term.prepend(figures.filter(({name, chart}) => names.includes(chart || name)).map((figure) => figure.title).join(', '));
  }
  drawAll(charts);
}

kPages[kData.kind](kData);
