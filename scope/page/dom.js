// SPDX-License-Identifier: Apache-2.0
'use strict';

// Makes elements and formats numbers.

// Makes an element with attributes and children. A string becomes a text node, never markup.
function el(tag, attributes, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value !== null && value !== false) element.setAttribute(name, value);
  }
  element.append(...children.flat());
  return element;
}

function absent(text = '–') {
  return el('span', {class: 'absent'}, text);
}

function thousands(value) {
  return value.toLocaleString('en', {maximumFractionDigits: 0});
}

// A rate; small ones have more decimals.
function rateText(value) {
  return value.toFixed(value < 10 ? 2 : value < 10000 ? 1 : 0);
}

// A latency in a fitting unit.
function latencyText(ns) {
  if (ns < 1e3) return `${ns} ns`;
  if (ns < 1e6) return `${(ns / 1e3).toFixed(2)} µs`;
  if (ns < 1e9) return `${(ns / 1e6).toFixed(2)} ms`;
  return `${(ns / 1e9).toFixed(2)} s`;
}

// A percentage with its sign.
function percentText(value) {
  return `${value > 0 ? '+' : value < 0 ? '−' : ''}${Math.abs(value)} %`;
}

function shortNumber(value) {
  return Number(Number(value).toPrecision(4)).toLocaleString('en', {maximumFractionDigits: 6});
}
