// SPDX-License-Identifier: Apache-2.0
'use strict';

// Makes elements and formats numbers.

function filled(element, attributes, children) {
  for (const [name, value] of Object.entries(attributes)) {
    if (value !== null && value !== false) element.setAttribute(name, value);
  }
  element.append(...children.flat());
  return element;
}

// Makes an element with attributes and children. A string becomes a text node, never markup.
function el(tag, attributes, ...children) {
  return filled(document.createElement(tag), attributes, children);
}

// The same for an element of a drawing.
function svg(tag, attributes, ...children) {
  return filled(document.createElementNS('http://www.w3.org/2000/svg', tag), attributes, children);
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

// A percentage with its sign, with `decimals` if they are given.
function percentText(value, decimals) {
  const digits = decimals === undefined ? String(Math.abs(value)) : Math.abs(value).toFixed(decimals);
  const sign = Number(digits) === 0 ? '' : value > 0 ? '+' : '−';
  return `${sign}${digits} %`;
}

function counted(count, noun) {
  return `${count} ${noun}${count === 1 ? '' : 's'}`;
}

function shortNumber(value) {
  return Number(Number(value).toPrecision(4)).toLocaleString('en', {maximumFractionDigits: 6});
}
