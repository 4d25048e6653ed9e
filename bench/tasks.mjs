// bench/tasks.mjs: whole tasks done the way an agent does them, with nurel and with the tools
// people give agents for the same job, on pages of the benchmark's own served on 127.0.0.1:
//
//   a. todo      a to-do list routed by the address's hash: add two items, tick one, go to
//                "Active" by its link, read how many items are left
//   b. router    an app whose router calls history.pushState: go to the projects, then to one
//                project, read its budget
//   c. checkout  a checkout form with validation: fill it in, submit it, read the confirmation
//   d. article   a long article: what is the capital (its infobox), how many kudos (its stats)
//
// Each tool does each task as a fixed list of its own natural commands (open, look, act by
// ref, read), the refs taken from its own snapshots as an agent reads them. Two comparisons:
//
//   1. command lines: nurel next to agent-browser and @playwright/cli (pinned in
//      package-lock.json), one process per command; per task: calls, characters the agent
//      reads (standard output and error, and the snapshot files a tool writes and the agent
//      reads), wall time and the slowest call. Goals: nurel reads fewer characters than the
//      smaller of the two on every task, no nurel call takes 1 s, and nurel's total time is at
//      most half the faster one's.
//   2. MCP: the same tasks through `nurel mcp`, @playwright/mcp and chrome-devtools-mcp over
//      stdio; per task the bytes of the tool results. Goal: nurel's fewer than either's.
//
//   node bench/tasks.mjs <build folder> [runs]     (bench/run.sh --tasks [runs] does this)
//
// Every run gives every tool a fresh session: its own temporary folder as HOME and TMPDIR (so
// its profiles and daemons' files land there), nurel its own NUREL_SOCKET and XDG_DATA_HOME;
// the tools take turns from run to run. A session starts with two commands kept out of the
// tasks' figures and shown apart: one that starts the tool's browser, and a first small page
// (each tool's first page costs more than the next). Every call has a time limit (60 s); a
// call that fails or runs out of time is counted and shown, and a task whose next ref can't be
// found stops there. At the end of a session every process that carries its folder in its
// environment is ended (the daemons and their Chromiums) and the folder removed.
//
// Every Chromium is /usr/bin/chromium (or $NUREL_CHROMIUM), resolves no name but 127.0.0.1,
// and the tools' own update checks are turned off. NUREL_BENCH_KEEP=<folder> keeps what each
// call returned there, one file per tool, task and run.
import fs from 'node:fs';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { McpClient } from './mcp-client.mjs';
import {
  asRoot, callLimitMs, chromium, endSession, hostRules, modules, runCommand, scratchFor, sessionsRoot, sleep,
} from './sessions.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const build = path.resolve(process.argv[2] ?? path.join(here, '..', 'build-bench'));
const runs = Math.max(1, Number(process.argv[3] ?? 3));
const keep = process.env.NUREL_BENCH_KEEP;

// a. A to-do list routed by the address's hash (#/, #/active, #/completed), as the classic to-do
// apps are: a row's checkbox has no name of its own (the item's text is a <label> beside it, not
// tied to it), the "×" that deletes a row is only CSS generated content, and a double click on
// an item's label edits it in place.
const todoPage = `<!doctype html><html lang="en"><head><meta charset="utf-8"><title>Todos</title>
<style>
body { font: 14px/1.4 'Helvetica Neue', Helvetica, Arial, sans-serif; background: #f5f5f5; color: #111; margin: 0; }
.todoapp { background: #fff; margin: 60px auto 30px; width: 550px; position: relative; box-shadow: 0 2px 4px rgba(0,0,0,.2); }
.todoapp h1 { position: absolute; top: -95px; width: 100%; font-size: 70px; font-weight: 200; text-align: center; color: #b83f45; margin: 0; }
.new-todo, .edit { width: 100%; box-sizing: border-box; font-size: 24px; padding: 16px 16px 16px 60px; border: 0; }
.main { border-top: 1px solid #e6e6e6; position: relative; }
.toggle-all { position: absolute; top: -52px; left: 12px; width: 30px; height: 30px; }
.toggle-all + label { position: absolute; top: -52px; left: 48px; font-size: 0; width: 1px; height: 1px; overflow: hidden; }
.todo-list { list-style: none; margin: 0; padding: 0; }
.todo-list li { position: relative; font-size: 24px; border-bottom: 1px solid #ededed; }
.todo-list li .toggle { position: absolute; top: 0; bottom: 0; left: 8px; margin: auto 0; width: 32px; height: 32px; }
.todo-list li label { display: block; padding: 15px 60px 15px 60px; word-break: break-all; }
.todo-list li.completed label { color: #949494; text-decoration: line-through; }
.todo-list li .destroy { position: absolute; top: 0; right: 10px; bottom: 0; width: 40px; height: 40px; margin: auto 0;
  font-size: 30px; color: #949494; background: none; border: 0; opacity: .4; cursor: pointer; }
.todo-list li:hover .destroy { opacity: 1; color: #c18585; }
.todo-list li .destroy::after { content: '×'; display: block; }
.todo-list li .edit { display: none; }
.todo-list li.editing .edit { display: block; }
.todo-list li.editing .view { display: none; }
.footer { display: flex; justify-content: space-between; align-items: center; padding: 10px 15px; color: #111; }
.filters { list-style: none; display: flex; gap: 6px; margin: 0; padding: 0; }
.filters a { color: inherit; text-decoration: none; padding: 3px 7px; border: 1px solid transparent; border-radius: 3px; }
.filters a.selected { border-color: #ce4646; }
.clear-completed { background: none; border: 0; color: inherit; cursor: pointer; }
.info { margin: 65px auto 0; color: #4d4d4d; font-size: 11px; text-align: center; }
</style></head>
<body>
<section class="todoapp">
  <header class="header"><h1>todos</h1><input class="new-todo" placeholder="What needs to be done?" autofocus></header>
  <section class="main"><input id="toggle-all" class="toggle-all" type="checkbox"><label for="toggle-all">Mark all as complete</label>
    <ul class="todo-list"></ul></section>
  <footer class="footer"><span class="todo-count"></span>
    <ul class="filters"><li><a href="#/">All</a></li><li><a href="#/active">Active</a></li><li><a href="#/completed">Completed</a></li></ul>
    <button class="clear-completed">Clear completed</button></footer>
</section>
<footer class="info"><p>Double-click to edit a todo</p><p>One of the benchmark's own pages</p></footer>
<script>
let items = [
  { title: 'Water the plants', done: false },
  { title: 'Pay the electricity bill', done: true },
  { title: 'Call the garage about the brakes', done: false },
];
const list = document.querySelector('.todo-list');
const filter = () => (location.hash.replace('#/', '') || 'all');
function render() {
  const shown = items.filter((item) => filter() === 'all' || (filter() === 'active') !== item.done);
  list.replaceChildren(...shown.map((item) => {
    const row = document.createElement('li');
    if (item.done) row.className = 'completed';
    row.innerHTML = '<div class="view"><input class="toggle" type="checkbox"><label></label><button class="destroy"></button></div><input class="edit">';
    row.querySelector('label').textContent = item.title;
    row.querySelector('.edit').value = item.title;
    const toggle = row.querySelector('.toggle');
    toggle.checked = item.done;
    toggle.addEventListener('change', () => { item.done = toggle.checked; render(); });
    row.querySelector('.destroy').addEventListener('click', () => { items = items.filter((i) => i !== item); render(); });
    row.querySelector('label').addEventListener('dblclick', () => { row.classList.add('editing'); row.querySelector('.edit').focus(); });
    const edit = row.querySelector('.edit');
    const save = () => { if (!row.classList.contains('editing')) return; item.title = edit.value.trim() || item.title; render(); };
    edit.addEventListener('keydown', (event) => { if (event.key === 'Enter') save(); if (event.key === 'Escape') render(); });
    edit.addEventListener('blur', save);
    return row;
  }));
  const left = items.filter((item) => !item.done).length;
  document.querySelector('.todo-count').innerHTML = '<strong>' + left + '</strong> ' + (left === 1 ? 'item' : 'items') + ' left';
  document.querySelectorAll('.filters a').forEach((a) => a.classList.toggle('selected', a.getAttribute('href') === '#/' + (filter() === 'all' ? '' : filter())));
  document.querySelector('.toggle-all').checked = items.length > 0 && items.every((item) => item.done);
}
document.querySelector('.new-todo').addEventListener('keydown', (event) => {
  const title = event.target.value.trim();
  if (event.key !== 'Enter' || !title) return;
  items.push({ title, done: false });
  event.target.value = '';
  render();
});
document.querySelector('.toggle-all').addEventListener('change', (event) => { items.forEach((item) => { item.done = event.target.checked; }); render(); });
document.querySelector('.clear-completed').addEventListener('click', () => { items = items.filter((item) => !item.done); render(); });
window.addEventListener('hashchange', render);
render();
</script></body></html>`;

// b. A small single-page app whose router calls history.pushState on a link's click and draws
// the view from JSON it fetches: an overview, a list of projects, a project's page.
const projects = [
  ['atlas', 'Atlas data migration', 'Mere Walker', 'On track', '$96,400', '$51,020', '14 Mar 2027'],
  ['beacon', 'Beacon customer portal', 'Tom Price', 'At risk', '$128,000', '$117,300', '30 Jan 2027'],
  ['cobalt', 'Cobalt billing rewrite', 'Aroha Ngata', 'On track', '$74,900', '$22,480', '2 Jun 2027'],
  ['delta', 'Delta warehouse scanners', 'Sam Okafor', 'Done', '$38,250', '$37,910', '18 Nov 2026'],
  ['ember', 'Ember mobile app', 'Lena Fischer', 'On track', '$210,000', '$88,640', '21 Aug 2027'],
  ['fjord', 'Fjord analytics dashboards', 'Ravi Menon', 'Paused', '$57,300', '$12,050', '1 Oct 2027'],
  ['garnet', 'Garnet payroll integration', 'Ana Costa', 'On track', '$66,800', '$40,330', '9 Apr 2027'],
  ['harbour', 'Harbour site redesign', 'James Liu', 'At risk', '$83,600', '$79,940', '15 Feb 2027'],
  ['orion', 'Orion fleet tracking', 'Priya Shah', 'On track', '$312,750', '$143,275', '30 Sep 2027'],
  ['quartz', 'Quartz single sign-on', 'Noah Brown', 'On track', '$45,100', '$9,860', '12 Jul 2027'],
];
const appPage = `<!doctype html><html lang="en"><head><meta charset="utf-8"><title>Projects · Northwind</title>
<style>
body { font: 15px/1.5 system-ui, sans-serif; margin: 0; color: #1f2328; }
header { display: flex; align-items: center; gap: 24px; padding: 12px 24px; background: #24292f; }
header strong { color: #fff; }
header a { color: #d0d7de; text-decoration: none; }
header a[aria-current=page] { color: #fff; font-weight: 600; }
main { max-width: 900px; margin: 24px auto; padding: 0 24px; }
table { border-collapse: collapse; width: 100%; }
th, td { text-align: left; padding: 6px 10px; border-bottom: 1px solid #d8dee4; }
dl { display: grid; grid-template-columns: 160px 1fr; gap: 6px 12px; }
dt { color: #57606a; }
.cards { display: grid; grid-template-columns: repeat(3, 1fr); gap: 16px; }
.card { border: 1px solid #d8dee4; border-radius: 6px; padding: 12px 16px; }
</style></head>
<body>
<header><strong>Northwind</strong><nav aria-label="Main">
<a href="/app/">Overview</a> <a href="/app/projects">Projects</a> <a href="/app/people">People</a> <a href="/app/reports">Reports</a> <a href="/app/settings">Settings</a></nav>
<input type="search" aria-label="Search projects" placeholder="Search"></header>
<main id="view" aria-live="polite"><p>Loading…</p></main>
<script>
const view = document.getElementById('view');
const escape = (text) => String(text).replace(/[&<>"]/g, (c) => ({ '&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;' })[c]);
const views = {
  async overview() {
    const data = await (await fetch('/api/summary')).json();
    return '<h1>Overview</h1><div class="cards">' + data.cards.map((c) => '<section class="card"><h2>' + escape(c.title) + '</h2><p>' + escape(c.text) + '</p></section>').join('') +
      '</div><h2>Recent activity</h2><ul>' + data.activity.map((a) => '<li>' + escape(a) + '</li>').join('') + '</ul>';
  },
  async projects() {
    const data = await (await fetch('/api/projects')).json();
    return '<h1>Projects</h1><p>' + data.length + ' projects this year.</p><table><thead><tr><th>Project</th><th>Owner</th><th>Status</th><th>Due</th></tr></thead><tbody>' +
      data.map((p) => '<tr><td><a href="/app/projects/' + p.id + '">' + escape(p.name) + '</a></td><td>' + escape(p.owner) + '</td><td>' + escape(p.status) + '</td><td>' + escape(p.due) + '</td></tr>').join('') +
      '</tbody></table>';
  },
  async project(id) {
    const p = await (await fetch('/api/projects/' + id)).json();
    return '<nav aria-label="Breadcrumb"><a href="/app/projects">Projects</a> / ' + escape(p.name) + '</nav><h1>' + escape(p.name) + '</h1>' +
      '<dl><dt>Owner</dt><dd>' + escape(p.owner) + '</dd><dt>Status</dt><dd>' + escape(p.status) + '</dd><dt>Budget</dt><dd>' + escape(p.budget) +
      '</dd><dt>Spent</dt><dd>' + escape(p.spent) + '</dd><dt>Due</dt><dd>' + escape(p.due) + '</dd></dl><h2>Milestones</h2><ol>' +
      p.milestones.map((m) => '<li>' + escape(m) + '</li>').join('') + '</ol><button type="button">Edit project</button>';
  },
  async other(name) { return '<h1>' + escape(name[0].toUpperCase() + name.slice(1)) + '</h1><p>Nothing here yet.</p>'; },
};
async function route() {
  const parts = location.pathname.replace(/^\\/app\\/?/, '').split('/').filter(Boolean);
  const html = !parts.length ? await views.overview() : parts[0] === 'projects' && parts[1] ? await views.project(parts[1]) :
    parts[0] === 'projects' ? await views.projects() : await views.other(parts[0]);
  view.innerHTML = html;
  document.title = (view.querySelector('h1')?.textContent || 'Overview') + ' · Northwind';
  document.querySelectorAll('header nav a').forEach((a) => {
    const here = a.getAttribute('href') === '/app/' ? !parts.length : location.pathname.startsWith(a.getAttribute('href'));
    if (here) a.setAttribute('aria-current', 'page'); else a.removeAttribute('aria-current');
  });
}
document.addEventListener('click', (event) => {
  const link = event.target.closest('a[href^="/app/"]');
  if (!link || event.button !== 0 || event.metaKey || event.ctrlKey) return;
  event.preventDefault();
  history.pushState(null, '', link.getAttribute('href'));
  route();
});
window.addEventListener('popstate', route);
route();
</script></body></html>`;

// What the app fetches.
function appData(pathname) {
  const project = (p) => ({ id: p[0], name: p[1], owner: p[2], status: p[3], budget: p[4], spent: p[5], due: p[6],
    milestones: ['Discovery finished', 'First release to the pilot group', 'Rollout to every region', 'Hand-over to support'] });
  if (pathname === '/api/summary') {
    return { cards: [{ title: 'Active projects', text: '8 running, 1 paused, 1 done' }, { title: 'Spend this quarter', text: 'Within plan' },
      { title: 'Next deadline', text: 'Delta warehouse scanners' }],
    activity: ['Priya Shah updated Orion fleet tracking', 'Tom Price flagged Beacon customer portal as at risk', 'Sam Okafor closed Delta warehouse scanners'] };
  }
  if (pathname === '/api/projects') return projects.map(project);
  const one = projects.find((p) => pathname === '/api/projects/' + p[0]);
  return one ? project(one) : null;
}

// c. A checkout form in Bootstrap's markup (its checkout example's fields, with a little CSS of
// its own instead of Bootstrap's): labels tied to fields, a select for the country, required
// fields whose errors show only after a submit, and a confirmation in place of the form.
const field = (id, label, { type = 'text', col = 'col-sm-6', required = true, feedback, placeholder = '', autocomplete = '' } = {}) =>
  `<div class="${col}"><label for="${id}" class="form-label">${label}</label>` +
  `<input type="${type}" class="form-control" id="${id}" placeholder="${placeholder}"${autocomplete ? ` autocomplete="${autocomplete}"` : ''}${required ? ' required' : ''}>` +
  (feedback ? `<div class="invalid-feedback">${feedback}</div>` : '') + '</div>';
const checkoutPage = `<!doctype html><html lang="en"><head><meta charset="utf-8"><title>Checkout · Kiwi Outdoor</title>
<style>
body { font: 16px/1.5 system-ui, -apple-system, 'Segoe UI', Roboto, sans-serif; margin: 0; background: #f8f9fa; color: #212529; }
.container { max-width: 960px; margin: 0 auto; padding: 0 12px; }
.py-5 { padding: 48px 0; } .text-center { text-align: center; } .text-muted { color: #6c757d; }
.row { display: flex; flex-wrap: wrap; gap: 16px 0; margin: 0 -12px; } .row > * { padding: 0 12px; box-sizing: border-box; }
.col-sm-6 { width: 50%; } .col-sm-12, .col-12 { width: 100%; } .col-md-5 { width: 41.6%; } .col-md-7 { width: 58.3%; } .col-md-4 { width: 33.3%; } .col-md-3 { width: 25%; }
.form-label { display: block; margin-bottom: 6px; }
.form-control, .form-select { display: block; width: 100%; box-sizing: border-box; padding: 6px 12px; font-size: 16px; border: 1px solid #ced4da; border-radius: 6px; background: #fff; }
.invalid-feedback { display: none; color: #dc3545; font-size: 14px; margin-top: 4px; }
.was-validated .form-control:invalid, .was-validated .form-select:invalid { border-color: #dc3545; }
.was-validated .form-control:invalid ~ .invalid-feedback, .was-validated .form-select:invalid ~ .invalid-feedback { display: block; }
.list-group { list-style: none; padding: 0; margin: 0 0 16px; border: 1px solid #dee2e6; border-radius: 6px; background: #fff; }
.list-group-item { display: flex; justify-content: space-between; padding: 8px 16px; border-bottom: 1px solid #dee2e6; }
.btn { display: inline-block; padding: 6px 12px; font-size: 16px; border-radius: 6px; border: 1px solid #6c757d; background: #6c757d; color: #fff; cursor: pointer; }
.btn-primary { background: #0d6efd; border-color: #0d6efd; } .btn-lg { padding: 8px 16px; font-size: 20px; } .w-100 { width: 100%; }
.alert { padding: 16px; border-radius: 6px; margin-bottom: 16px; } .alert-danger { background: #f8d7da; color: #58151c; } .alert-success { background: #d1e7dd; color: #0a3622; }
.form-check { display: flex; gap: 8px; align-items: center; } hr { margin: 24px 0; border: 0; border-top: 1px solid #dee2e6; }
.input-group { display: flex; } .input-group .form-control { border-radius: 6px 0 0 6px; } .input-group .btn { border-radius: 0 6px 6px 0; }
</style></head>
<body><div class="container"><main>
<div class="py-5 text-center"><h2>Checkout form</h2><p class="lead">Below is an example form built entirely with Bootstrap's form controls. Each required form group has a validation state that can be triggered by attempting to submit the form without completing it.</p></div>
<div class="row g-5" id="checkout">
<div class="col-md-5 order-md-last"><h4 class="d-flex justify-content-between"><span class="text-primary">Your cart</span> <span class="badge">3</span></h4>
<ul class="list-group mb-3">
<li class="list-group-item"><div><h6 class="my-0">Merino base layer</h6><small class="text-muted">Charcoal, size M</small></div><span class="text-muted">$89</span></li>
<li class="list-group-item"><div><h6 class="my-0">Trail running socks</h6><small class="text-muted">Two pairs</small></div><span class="text-muted">$24</span></li>
<li class="list-group-item"><div><h6 class="my-0">Insulated bottle</h6><small class="text-muted">750 ml, green</small></div><span class="text-muted">$39</span></li>
<li class="list-group-item"><span>Total (NZD)</span><strong>$152</strong></li></ul>
<form class="card p-2" onsubmit="return false"><div class="input-group"><input type="text" class="form-control" placeholder="Promo code" aria-label="Promo code"><button type="submit" class="btn btn-secondary">Redeem</button></div></form></div>
<div class="col-md-7"><h4 class="mb-3">Billing address</h4>
<div class="alert alert-danger" role="alert" id="problems" hidden></div>
<form class="needs-validation" novalidate id="order"><div class="row g-3">
${field('firstName', 'First name', { feedback: 'Valid first name is required.', autocomplete: 'given-name' })}
${field('lastName', 'Last name', { feedback: 'Valid last name is required.', autocomplete: 'family-name' })}
${field('email', 'Email', { type: 'email', col: 'col-12', placeholder: 'you@example.com', feedback: 'Please enter a valid email address for shipping updates.' })}
${field('address', 'Address', { col: 'col-12', placeholder: '1234 Main St', feedback: 'Please enter your shipping address.' })}
${field('address2', 'Address 2 <span class="text-muted">(Optional)</span>', { col: 'col-12', placeholder: 'Apartment or suite', required: false })}
<div class="col-md-5"><label for="country" class="form-label">Country</label><select class="form-select" id="country" required>
<option value="">Choose...</option><option>Australia</option><option>Canada</option><option>New Zealand</option><option>United Kingdom</option><option>United States</option></select>
<div class="invalid-feedback">Please select a valid country.</div></div>
${field('zip', 'Zip', { col: 'col-md-3', feedback: 'Zip code required.' })}
</div><hr>
<div class="form-check"><input type="checkbox" class="form-check-input" id="same-address" checked><label class="form-check-label" for="same-address">Shipping address is the same as my billing address</label></div>
<div class="form-check"><input type="checkbox" class="form-check-input" id="save-info"><label class="form-check-label" for="save-info">Save this information for next time</label></div>
<hr><h4 class="mb-3">Payment</h4>
<div class="my-3"><div class="form-check"><input id="credit" name="paymentMethod" type="radio" class="form-check-input" checked required><label class="form-check-label" for="credit">Credit card</label></div>
<div class="form-check"><input id="debit" name="paymentMethod" type="radio" class="form-check-input" required><label class="form-check-label" for="debit">Debit card</label></div>
<div class="form-check"><input id="paypal" name="paymentMethod" type="radio" class="form-check-input" required><label class="form-check-label" for="paypal">PayPal</label></div></div>
<div class="row gy-3">
${field('cc-name', 'Name on card', { feedback: 'Name on card is required.' })}
${field('cc-number', 'Credit card number', { feedback: 'Credit card number is required.' })}
${field('cc-expiration', 'Expiration', { col: 'col-md-3', feedback: 'Expiration date required.' })}
${field('cc-cvv', 'CVV', { col: 'col-md-3', feedback: 'Security code required.' })}
</div><hr><button class="w-100 btn btn-primary btn-lg" type="submit">Continue to checkout</button></form></div></div>
</main><footer class="py-5 text-center text-muted"><p>&copy; 2026 Kiwi Outdoor</p><ul class="list-inline"><li><a href="#">Privacy</a></li><li><a href="#">Terms</a></li><li><a href="#">Support</a></li></ul></footer></div>
<script>
const form = document.getElementById('order');
form.addEventListener('submit', (event) => {
  event.preventDefault();
  const problems = document.getElementById('problems');
  if (!form.checkValidity()) {
    form.classList.add('was-validated');
    const bad = [...form.querySelectorAll(':invalid')].filter((e) => e.id);
    problems.textContent = 'Please correct ' + bad.length + (bad.length === 1 ? ' field' : ' fields') + ': ' + bad.map((e) => form.querySelector('label[for="' + e.id + '"]').textContent).join(', ') + '.';
    problems.hidden = false;
    return;
  }
  const value = (id) => document.getElementById(id).value;
  const done = document.createElement('div');
  done.className = 'alert alert-success';
  done.setAttribute('role', 'status');
  done.innerHTML = '<h4>Thank you for your order</h4><p>Order number <strong>KO-58213</strong>. We sent a receipt to <span id="to"></span>; it ships to <span id="where"></span> within two working days.</p>';
  done.querySelector('#to').textContent = value('email');
  done.querySelector('#where').textContent = value('address') + ', ' + value('zip') + ' ' + value('country');
  document.getElementById('checkout').replaceWith(done);
});
</script></body></html>`;

// d. A long article, as an encyclopedia or a fan archive shows one: a table of contents, an
// infobox near the top (<th scope=row>Capital</th><td>Wellington</td>), the page's statistics as
// a <dl> of "Words:", "Kudos:" and the like, and dozens of sections of prose, written here
// by a seeded generator so that every run reads the same words.
function articlePage() {
  let seed = 20261125;
  const next = () => {  // mulberry32
    seed = (seed + 0x6d2b79f5) | 0;
    let t = Math.imul(seed ^ (seed >>> 15), 1 | seed);
    t = (t + Math.imul(t ^ (t >>> 7), 61 | t)) ^ t;
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
  const pick = (list) => list[Math.floor(next() * list.length)];
  const subjects = ['The northern coastline', 'Early settlers', 'The regional councils', 'Local historians', 'The mountain ranges',
    'Farming communities', 'The first railway lines', 'Coastal towns', 'The native forests', 'The dairy industry', 'Visitors from abroad',
    'Migratory birds', 'The volcanic plateau', 'The river valleys', 'The fishing fleet', 'Rural schools', 'The southern lakes',
    'Tribal leaders', 'The shipping companies', 'Small manufacturers', 'The wine regions', 'Public broadcasters'];
  const verbs = ['shaped', 'changed', 'depended on', 'gave rise to', 'drew attention to', 'slowly replaced', 'helped to define',
    'still influence', 'were reshaped by', 'kept alive', 'competed with', 'relied heavily on', 'opened the way for', 'set limits on'];
  const objects = ['the patterns of trade', 'the growth of inland settlement', 'a distinct regional identity', 'the use of the land',
    'the way towns were laid out', 'long-standing customs', 'seasonal work on the coast', 'the balance between town and country',
    'the spread of new crops', 'travel between the islands', 'the arrival of new languages', 'the protection of wetlands',
    'the reputation of local produce', 'a network of small harbours', 'the design of public buildings'];
  const tails = ['over the following decades', 'well into the last century', 'according to surviving records', 'despite frequent storms',
    'in ways that are still visible today', 'as new roads opened', 'long before the first census', 'with mixed results',
    'more than once', 'in the years between the wars', 'for much of the period', 'as later surveys confirmed'];
  const sentence = () => `${pick(subjects)} ${pick(verbs)} ${pick(objects)} ${pick(tails)}.`;
  const paragraph = () => Array.from({ length: 5 + Math.floor(next() * 4) }, sentence).join(' ');
  const outline = [['Etymology'], ['History', 'Early settlement', 'Colonial period', 'The twentieth century', 'Recent history'],
    ['Geography', 'Climate', 'Geology', 'Biodiversity', 'Islands'], ['Government and politics', 'Local government', 'Foreign relations', 'Defence'],
    ['Economy', 'Agriculture', 'Tourism', 'Energy', 'Science and technology'], ['Demographics', 'Language', 'Religion', 'Education'],
    ['Culture', 'Art', 'Music', 'Literature', 'Film', 'Sport', 'Cuisine'], ['Infrastructure', 'Transport', 'Health', 'Communications']];
  const id = (title) => title.toLowerCase().replace(/[^a-z]+/g, '-');
  let words = 0;
  const prose = (count) => Array.from({ length: count }, () => { const p = paragraph(); words += p.split(' ').length; return `<p>${p}</p>`; }).join('\n');
  let body = '';
  let sections = 0;
  for (const [title, ...subsections] of outline) {
    body += `<h2 id="${id(title)}">${title}</h2>\n${prose(subsections.length ? 1 : 3)}\n`;
    if (title === 'History') body += '<p>The seat of government moved south to the present capital in the second half of that century, a choice argued over for years.</p>\n';
    sections += 1;
    for (const sub of subsections) {
      body += `<h3 id="${id(sub)}">${sub}</h3>\n${prose(2 + Math.floor(next() * 2))}\n`;
      sections += 1;
    }
  }
  const toc = outline.map(([title, ...subs]) => `<li><a href="#${id(title)}">${title}</a>` +
    (subs.length ? `<ul>${subs.map((s) => `<li><a href="#${id(s)}">${s}</a></li>`).join('')}</ul>` : '') + '</li>').join('');
  const references = Array.from({ length: 30 }, (_, i) => `<li>${pick(subjects)} and ${pick(objects)}. <a href="/ref/${i + 1}">Archive record ${i + 1}</a>.</li>`).join('');
  const wordsShown = words.toLocaleString('en-US');
  return `<!doctype html><html lang="en"><head><meta charset="utf-8"><title>New Zealand · Atlas Wiki</title>
<style>
body { font: 15px/1.6 Georgia, serif; margin: 0; color: #202122; }
.top { display: flex; gap: 20px; align-items: center; padding: 8px 24px; border-bottom: 1px solid #a2a9b1; font-family: sans-serif; }
.layout { display: flex; max-width: 1100px; margin: 0 auto; }
.side { width: 200px; padding: 16px; font: 13px/1.5 sans-serif; }
article { flex: 1; padding: 16px 24px; }
.infobox { float: right; width: 300px; margin: 0 0 16px 16px; border: 1px solid #a2a9b1; background: #f8f9fa; font: 13px/1.4 sans-serif; border-collapse: collapse; }
.infobox th, .infobox td { padding: 4px 6px; vertical-align: top; text-align: left; }
.infobox caption { font-weight: bold; font-size: 16px; padding: 6px; }
dl.stats { display: flex; flex-wrap: wrap; gap: 2px 6px; font: 13px sans-serif; margin: 0 0 12px; }
dl.stats dt { font-weight: bold; } dl.stats dd { margin: 0 10px 0 0; }
</style></head>
<body>
<div class="top"><strong>Atlas Wiki</strong><nav aria-label="Site"><a href="/">Main page</a> <a href="/random">Random article</a> <a href="/about">About</a> <a href="/help">Help</a></nav>
<form role="search" onsubmit="return false"><input type="search" aria-label="Search Atlas Wiki" placeholder="Search Atlas Wiki"><button>Search</button></form><a href="/login">Log in</a></div>
<div class="layout"><nav class="side" aria-label="Contents"><h2>Contents</h2><ul>${toc}</ul></nav>
<article><h1>New Zealand</h1>
<dl class="stats"><dt>Published:</dt><dd>2019-04-02</dd><dt>Updated:</dt><dd>2026-10-30</dd><dt>Words:</dt><dd>${wordsShown}</dd><dt>Sections:</dt><dd>${sections}</dd>
<dt>Comments:</dt><dd>41</dd><dt>Kudos:</dt><dd>678</dd><dt>Bookmarks:</dt><dd>97</dd><dt>Hits:</dt><dd>23,410</dd></dl>
<table class="infobox"><caption>New Zealand</caption><tbody>
<tr><th scope="row">Capital</th><td>Wellington</td></tr>
<tr><th scope="row">Largest city</th><td>Auckland</td></tr>
<tr><th scope="row">Official languages</th><td>English, Māori, NZ Sign Language</td></tr>
<tr><th scope="row">Demonym</th><td>New Zealander, Kiwi</td></tr>
<tr><th scope="row">Government</th><td>Unitary parliamentary constitutional monarchy</td></tr>
<tr><th scope="row">Area</th><td>268,021 km²</td></tr>
<tr><th scope="row">Population</th><td>5,338,500 (2024 estimate)</td></tr>
<tr><th scope="row">Currency</th><td>New Zealand dollar (NZ$)</td></tr>
<tr><th scope="row">Time zone</th><td>UTC+12 (NZST)</td></tr>
<tr><th scope="row">Drives on</th><td>left</td></tr>
<tr><th scope="row">Calling code</th><td>+64</td></tr>
<tr><th scope="row">Internet domain</th><td>.nz</td></tr>
</tbody></table>
<p><b>New Zealand</b> is an island country in the south-western Pacific Ocean. This article covers its land, its people and its history in some length; the statistics above count its words and the readers who liked it.</p>
${body}<h2 id="references">References</h2><ol>${references}</ol>
<p><button type="button">Leave kudos</button> <button type="button">Bookmark</button> <a href="#comments">Comments</a></p>
</article></div></body></html>`;
}

// What each task types in, and what shows that it was done: the answer must be in what the
// tool returned to its last reads.
const order = [['First name', 'Ann'], ['Last name', 'Smith'], ['Email', 'ann@example.com'], ['Address', '12 Kauri Road'],
  ['Zip', '6011'], ['Name on card', 'Ann Smith'], ['Credit card number', '4111 1111 1111 1111'], ['Expiration', '12/29'], ['CVV', '123']];
const country = 'New Zealand';
const tasks = {
  todo: { title: 'a. to-do list (hash links)', answers: [['3 items left', /\b3\b[^\n]{0,12}\n?[^\n]{0,30}items left/]] },
  router: { title: 'b. pushState app', answers: [['budget $312,750', /\$312,750/]] },
  checkout: { title: 'c. checkout form', answers: [['order KO-58213', /KO-58213/]] },
  article: { title: 'd. long article', answers: [['capital Wellington', /Wellington/], ['kudos 678', /(?<![\d,])678(?![\d,])/]] },
};
const taskNames = Object.keys(tasks);

// The page each task starts on, and the app's data.
function serve() {
  const article = articlePage();
  const server = http.createServer((request, response) => {
    const { pathname } = new URL(request.url, 'http://127.0.0.1');
    const send = (status, type, body) => {
      response.writeHead(status, { 'content-type': type, 'cache-control': 'no-store' });
      response.end(body);
    };
    const html = 'text/html; charset=utf-8';
    if (pathname === '/todo.html') return send(200, html, todoPage);
    if (pathname === '/checkout.html') return send(200, html, checkoutPage);
    if (pathname === '/article.html') return send(200, html, article);
    // The app's own addresses all answer the app, as its server would, so a reload works.
    if (pathname === '/app' || pathname.startsWith('/app/')) return send(200, html, appPage);
    if (pathname.startsWith('/api/')) {
      const data = appData(pathname);
      return data ? send(200, 'application/json', JSON.stringify(data)) : send(404, 'application/json', '{}');
    }
    if (pathname === '/start.html') return send(200, html, '<!doctype html><title>Start</title><p>Ready.</p>');
    if (pathname === '/favicon.ico') return send(204, 'image/x-icon', '');
    send(404, 'text/plain', 'not found');
  });
  return new Promise((resolve) => server.listen(0, '127.0.0.1', () => resolve(server)));
}

// A task stops when the ref its next step needs isn't in what the tool showed.
class Stop extends Error {}

// The ref on the first line that matches `line`.
function refOn(text, line, refPattern, what) {
  const ref = text.split('\n').find((l) => line.test(l))?.match(refPattern)?.[1];
  if (!ref) throw new Stop(`no ref for ${what}`);
  return ref;
}
// The ref on the last line that says `label` and matches `role`, or else on the nearest such
// line above it: how an agent pairs a row's nameless checkbox with the label beside it. Lines
// matching `skip` (a diff's removed lines) are passed over.
function refBefore(text, label, role, refPattern, what, skip) {
  const lines = text.split('\n');
  let at = lines.length - 1;
  while (at >= 0 && !label.test(lines[at])) at -= 1;
  for (let i = at; i >= 0; i -= 1) {
    if (skip?.test(lines[i]) || !role.test(lines[i])) continue;
    const ref = lines[i].match(refPattern)?.[1];
    if (ref) return ref;
  }
  throw new Stop(`no ref for ${what}`);
}
// A command as the tables show it.
const shortened = (words) => { const line = words.join(' '); return line.length > 72 ? line.slice(0, 71) + '…' : line; };
const escaped = (text) => text.replace(/[.*+?^${}()|[\]\\]/g, '\\$&');

// The first line of a message that says something (not a heading).
const firstLine = (text) => (text.split('\n').map((l) => l.trim()).find((l) => l && !l.startsWith('#')) ?? '').slice(0, 120);
const characters = (text) => { let n = 0; for (const _ of text) n += 1; return n; };

// One tool doing one task once: every call with what it returned and how long it took.
class Record {
  constructor(tool, task, run) {
    Object.assign(this, { tool, task, run, calls: 0, amount: 0, ms: 0, slowest: 0, slowestCall: '', errors: [], stopped: null, log: [] });
  }
  add(what, text, ms, error) {
    this.calls += 1;
    this.ms += ms;
    if (ms > this.slowest) { this.slowest = ms; this.slowestCall = what; }
    if (error) this.errors.push(`${what}: ${error}`);
    if (keep) this.log.push(`$ ${what}   (${ms.toFixed(0)} ms${error ? ', ' + error : ''})\n${text}`);
  }
}

// A command-line session: runs the tool's commands in its folder and environment, and records
// each one. `run` answers what the agent reads (standard output, then standard error).
class Shell {
  constructor(tool, scratch) {
    this.tool = tool;
    this.scratch = scratch;
    Object.assign(this, tool.prepare(scratch));
  }
  async exec(args) {
    return runCommand(this.command, [...this.prefix, ...args], this.env, this.cwd, callLimitMs);
  }
  async run(record, args, options = {}) {
    const result = await this.exec(args);
    let text = result.out + result.err;
    let amount = characters(text);
    if (options.snapshot && this.tool.snapshotFile) {
      const file = this.tool.snapshotFile(result.out, this.cwd);
      if (file) {
        const saved = fs.readFileSync(file, 'utf8');
        amount += characters(saved);
        text += '\n' + saved;
      }
    }
    const error = result.timedOut ? `no answer in ${callLimitMs / 1000} s` :
      result.status !== 0 ? `exit ${result.status}: ${firstLine(result.err || result.out)}` : null;
    record.amount += amount;
    record.add(this.tool.shown(args), text, result.ms, error);
    return text;
  }
}

// The command-line tools: how each starts in its own folder, and its commands for each task.
const quoteLabel = (name) => new RegExp(`"${escaped(name)}"`);
const agentBrowser = path.join(modules, 'agent-browser', 'bin',
  `agent-browser-${os.platform()}-${os.arch() === 'arm64' ? 'arm64' : 'x64'}`);
const cliTools = {
  nurel: {
    prepare(scratch) {
      return { command: path.join(build, 'nurel'), prefix: [], cwd: scratch,
        env: { ...process.env, HOME: path.join(scratch, 'home'), TMPDIR: path.join(scratch, 'tmp'),
          NUREL_SOCKET: path.join(scratch, 'agent.sock'), XDG_DATA_HOME: path.join(scratch, 'data'),
          NUREL_CHROMIUM_FLAGS: hostRules, NUREL_IDLE_MINUTES: '5', ...(process.env.NUREL_CHROMIUM ? { NUREL_CHROMIUM: chromium } : {}) } };
    },
    async start(shell, record, base) {
      await shell.run(record, ['open', 'about:blank']);
      await shell.run(record, ['open', base + 'start.html']);
    },
    shown: (args) => shortened(['nurel', ...args]),
    ref: /\[ref=(e\d+)\]/,
    async open(shell, record, url) {
      const tab = (await shell.run(record, ['open', url])).split(' ')[0];
      if (!/^t\d+$/.test(tab)) throw new Stop('no tab');
      return tab;
    },
    tasks: {
      async todo(shell, r, base) {
        const tab = await this.open(shell, r, base + 'todo.html');
        const look = await shell.run(r, ['snapshot', tab]);
        const field = refOn(look, /textbox "What needs to be done\?"/, this.ref, 'the new item field');
        const added = await shell.run(r, ['batch', tab, JSON.stringify([
          { do: 'type', ref: field, text: 'Buy milk' }, { do: 'press_key', key: 'enter' },
          { do: 'type', ref: field, text: 'Book flights' }, { do: 'press_key', key: 'enter' },
          { do: 'snapshot', diff: true }])]);
        const tick = refBefore(added, /Buy milk/, /checkbox/, this.ref, 'the checkbox of "Buy milk"', /^-(-| {2})/);
        await shell.run(r, ['click', tab, tick, '--intent', 'Ticking Buy milk']);
        await shell.run(r, ['click', tab, refOn(look, /link "Active"/, this.ref, 'the link "Active"'), '--intent', 'Showing what is left']);
        return shell.run(r, ['find', tab, 'items left']);
      },
      async router(shell, r, base) {
        const tab = await this.open(shell, r, base + 'app/');
        const look = await shell.run(r, ['snapshot', tab, '--interactive']);
        await shell.run(r, ['click', tab, refOn(look, /link "Projects"/, this.ref, 'the link "Projects"'), '--intent', 'Opening the projects']);
        const list = await shell.run(r, ['snapshot', tab, '--interactive', '--diff']);
        await shell.run(r, ['click', tab, refOn(list, /link "Orion fleet tracking"/, this.ref, 'the project "Orion"'), '--intent', 'Opening Orion']);
        return shell.run(r, ['find', tab, 'Budget']);
      },
      async checkout(shell, r, base) {
        const tab = await this.open(shell, r, base + 'checkout.html');
        const look = await shell.run(r, ['snapshot', tab, '--interactive']);
        const ref = (role, name) => refOn(look, new RegExp(`${role} ${quoteLabel(name).source}`), this.ref, `${role} "${name}"`);
        await shell.run(r, ['batch', tab, JSON.stringify([
          ...order.map(([name, text]) => ({ do: 'type', ref: ref('textbox', name), text })),
          { do: 'select_option', ref: ref('combobox', 'Country'), option: country },
          { do: 'click', ref: ref('button', 'Continue to checkout'), intent: 'Placing the order' }])]);
        return shell.run(r, ['snapshot', tab, '--viewport']);
      },
      async article(shell, r, base) {
        const tab = await this.open(shell, r, base + 'article.html');
        return (await shell.run(r, ['find', tab, 'Capital'])) + '\n' + (await shell.run(r, ['find', tab, 'Kudos']));
      },
    },
  },
  'agent-browser': {
    // The native program, as a global install runs it (its npm wrapper only starts it), with
    // its check of Chromium's version against a feed of releases turned off. Its sockets go in
    // the session's folder; the launch switches go on the first command, which starts its
    // daemon and browser.
    prepare(scratch) {
      try { fs.accessSync(agentBrowser, fs.constants.X_OK); } catch { fs.chmodSync(agentBrowser, 0o755); }
      return { command: agentBrowser, prefix: [], cwd: scratch,
        env: { ...process.env, HOME: path.join(scratch, 'home'), TMPDIR: path.join(scratch, 'tmp'),
          AGENT_BROWSER_SOCKET_DIR: path.join(scratch, 'sockets'), AGENT_BROWSER_SESSION: 'bench',
          AGENT_BROWSER_EXECUTABLE_PATH: chromium, AGENT_BROWSER_NO_VERSION_CHECK: '1',
          AGENT_BROWSER_IDLE_TIMEOUT_MS: '300000' } };
    },
    async start(shell, record, base) {
      await shell.run(record, ['--args', [...(asRoot ? ['--no-sandbox'] : []), hostRules].join('\n'), 'open', 'about:blank']);
      await shell.run(record, ['open', base + 'start.html']);
    },
    stop: (shell) => shell.exec(['close']),
    shown: (args) => shortened(['agent-browser', ...args]),
    ref: /\bref=(e\d+)\]?/,
    tasks: {
      async todo(shell, r, base) {
        await shell.run(r, ['open', base + 'todo.html']);
        const look = await shell.run(r, ['snapshot']);
        const field = '@' + refOn(look, /textbox "What needs to be done\?"/, this.ref, 'the new item field');
        await shell.run(r, ['batch', `fill ${field} 'Buy milk'`, 'press Enter', `fill ${field} 'Book flights'`, 'press Enter']);
        const rows = await shell.run(r, ['snapshot']);
        await shell.run(r, ['check', '@' + refBefore(rows, /"Buy milk"/, /checkbox/, this.ref, 'the checkbox of "Buy milk"')]);
        await shell.run(r, ['click', '@' + refOn(rows, /link "Active"/, this.ref, 'the link "Active"')]);
        return shell.run(r, ['snapshot']);
      },
      async router(shell, r, base) {
        await shell.run(r, ['open', base + 'app/']);
        const look = await shell.run(r, ['snapshot', '-i']);
        await shell.run(r, ['click', '@' + refOn(look, /link "Projects"/, this.ref, 'the link "Projects"')]);
        const list = await shell.run(r, ['snapshot', '-i']);
        await shell.run(r, ['click', '@' + refOn(list, /link "Orion fleet tracking"/, this.ref, 'the project "Orion"')]);
        return shell.run(r, ['snapshot']);
      },
      async checkout(shell, r, base) {
        await shell.run(r, ['open', base + 'checkout.html']);
        const look = await shell.run(r, ['snapshot', '-i']);
        const ref = (role, name) => '@' + refOn(look, new RegExp(`${role} ${quoteLabel(name).source}`), this.ref, `${role} "${name}"`);
        await shell.run(r, ['batch', ...order.map(([name, text]) => `fill ${ref('textbox', name)} '${text}'`),
          `select ${ref('combobox', 'Country')} '${country}'`, `click ${ref('button', 'Continue to checkout')}`]);
        return shell.run(r, ['snapshot']);
      },
      // Its guide's way to read a text page: `read`, the page's text (smaller here than its
      // full snapshot, and its snapshot -i has none of the text).
      async article(shell, r, base) {
        await shell.run(r, ['open', base + 'article.html']);
        return shell.run(r, ['read']);
      },
    },
  },
  '@playwright/cli': {
    // Its daemon's files go under XDG_CACHE_HOME; its snapshots in .playwright-cli/ of the
    // folder it runs in. The browser comes from a configuration file; the update check is off.
    prepare(scratch) {
      const config = path.join(scratch, 'playwright-cli.json');
      fs.writeFileSync(config, JSON.stringify({ browser: { browserName: 'chromium',
        launchOptions: { executablePath: chromium, headless: true, args: [...(asRoot ? ['--no-sandbox'] : []), hostRules] } } }));
      const cwd = path.join(scratch, 'work');
      fs.mkdirSync(cwd);
      return { command: process.execPath, prefix: [path.join(modules, '@playwright/cli/playwright-cli.js')], cwd, config,
        env: { ...process.env, HOME: path.join(scratch, 'home'), TMPDIR: path.join(scratch, 'tmp'),
          XDG_CACHE_HOME: path.join(scratch, 'cache'), PLAYWRIGHT_CLI_SESSION: 'bench', NO_UPDATE_NOTIFIER: '1' } };
    },
    async start(shell, record, base) {
      await shell.run(record, ['open', `--config=${shell.config}`, '--idle-timeout=300000']);
      await shell.run(record, ['goto', base + 'start.html']);
    },
    stop: (shell) => shell.exec(['close']),
    shown: (args) => shortened(['playwright-cli', ...args]),
    // Each command writes a snapshot to a file and names it; the agent reads it when it needs
    // refs or the page's text.
    snapshotFile(out, cwd) {
      const name = out.match(/\[Snapshot\]\(([^)]+)\)/)?.[1];
      return name ? path.resolve(cwd, name) : null;
    },
    ref: /\[ref=([a-z0-9]+)\]/,
    tasks: {
      async todo(shell, r, base) {
        const look = await shell.run(r, ['goto', base + 'todo.html'], { snapshot: true });
        const field = refOn(look, /textbox "What needs to be done\?"/, this.ref, 'the new item field');
        await shell.run(r, ['fill', field, 'Buy milk', '--submit']);
        const rows = await shell.run(r, ['fill', field, 'Book flights', '--submit'], { snapshot: true });
        await shell.run(r, ['check', refBefore(rows, /Buy milk$/, /checkbox/, this.ref, 'the checkbox of "Buy milk"')]);
        await shell.run(r, ['click', refOn(rows, /link "Active"/, this.ref, 'the link "Active"')]);
        return shell.run(r, ['find', 'items left']);
      },
      async router(shell, r, base) {
        const look = await shell.run(r, ['goto', base + 'app/'], { snapshot: true });
        const list = await shell.run(r, ['click', refOn(look, /link "Projects"/, this.ref, 'the link "Projects"')], { snapshot: true });
        await shell.run(r, ['click', refOn(list, /link "Orion fleet tracking"/, this.ref, 'the project "Orion"')]);
        return shell.run(r, ['find', 'Budget']);
      },
      async checkout(shell, r, base) {
        const look = await shell.run(r, ['goto', base + 'checkout.html'], { snapshot: true });
        const ref = (role, name) => refOn(look, new RegExp(`${role} ${quoteLabel(name).source}`), this.ref, `${role} "${name}"`);
        for (const [name, text] of order) await shell.run(r, ['fill', ref('textbox', name), text]);
        await shell.run(r, ['select', ref('combobox', 'Country'), country]);
        return shell.run(r, ['click', ref('button', 'Continue to checkout')], { snapshot: true });
      },
      async article(shell, r, base) {
        await shell.run(r, ['goto', base + 'article.html']);
        return (await shell.run(r, ['find', 'Capital'])) + '\n' + (await shell.run(r, ['find', 'Kudos']));
      },
    },
  },
};

// An MCP server over stdio, as peers.mjs drives them, with a time limit on each call.
class Client extends McpClient {
  constructor(command, args, env, cwd) {
    super(command, args, env, cwd, callLimitMs);
  }
  // Records one tool call: the bytes of its result's text, its time, and whether it failed.
  async call(record, name, args) {
    const began = performance.now();
    const answer = await this.request('tools/call', { name, arguments: args });
    const ms = performance.now() - began;
    const text = (answer.result?.content ?? []).filter((c) => c.type === 'text').map((c) => c.text).join('\n');
    record.amount += (answer.result?.content ?? []).reduce((sum, c) => sum + Buffer.byteLength(c.text ?? c.data ?? ''), 0);
    const error = answer.error ? answer.error.message : answer.result?.isError ? firstLine(text) : null;
    record.add(shortened([name, JSON.stringify(args)]), text, ms, error);
    return text;
  }
}

// The MCP servers: how each starts, and its tool calls for each task.
const mcpTools = {
  'nurel mcp': {
    start(scratch) {
      return new Client(path.join(build, 'nurel'), ['mcp'], { ...process.env, HOME: path.join(scratch, 'home'),
        TMPDIR: path.join(scratch, 'tmp'), NUREL_SOCKET: path.join(scratch, 'agent.sock'), XDG_DATA_HOME: path.join(scratch, 'data'),
        NUREL_CHROMIUM_FLAGS: hostRules, NUREL_IDLE_MINUTES: '5', ...(process.env.NUREL_CHROMIUM ? { NUREL_CHROMIUM: chromium } : {}) }, scratch);
    },
    async first(client, record, base) {
      await client.call(record, 'open_tab', { url: 'about:blank' });
      await client.call(record, 'navigate', { tab: 't1', url: base + 'start.html', intent: 'Starting' });
    },
    ref: /\[ref=(e\d+)\]/,
    async open(client, r, url) {
      const tab = (await client.call(r, 'open_tab', { url })).split(' ')[0];
      if (!/^t\d+$/.test(tab)) throw new Stop('no tab');
      return tab;
    },
    tasks: {
      async todo(c, r, base) {
        const tab = await this.open(c, r, base + 'todo.html');
        const look = await c.call(r, 'snapshot', { tab });
        const field = refOn(look, /textbox "What needs to be done\?"/, this.ref, 'the new item field');
        const added = await c.call(r, 'batch', { tab, actions: [
          { do: 'type', ref: field, text: 'Buy milk', intent: 'Adding an item' }, { do: 'press_key', key: 'enter', intent: 'Adding it' },
          { do: 'type', ref: field, text: 'Book flights', intent: 'Adding an item' }, { do: 'press_key', key: 'enter', intent: 'Adding it' },
          { do: 'snapshot', diff: true }] });
        const tick = refBefore(added, /Buy milk/, /checkbox/, this.ref, 'the checkbox of "Buy milk"', /^-(-| {2})/);
        await c.call(r, 'click', { tab, ref: tick, intent: 'Ticking Buy milk' });
        await c.call(r, 'click', { tab, ref: refOn(look, /link "Active"/, this.ref, 'the link "Active"'), intent: 'Showing what is left' });
        return c.call(r, 'find', { tab, text: 'items left' });
      },
      async router(c, r, base) {
        const tab = await this.open(c, r, base + 'app/');
        const look = await c.call(r, 'snapshot', { tab, interactive: true });
        await c.call(r, 'click', { tab, ref: refOn(look, /link "Projects"/, this.ref, 'the link "Projects"'), intent: 'Opening the projects' });
        const list = await c.call(r, 'snapshot', { tab, interactive: true, diff: true });
        await c.call(r, 'click', { tab, ref: refOn(list, /link "Orion fleet tracking"/, this.ref, 'the project "Orion"'), intent: 'Opening Orion' });
        return c.call(r, 'find', { tab, text: 'Budget' });
      },
      async checkout(c, r, base) {
        const tab = await this.open(c, r, base + 'checkout.html');
        const look = await c.call(r, 'snapshot', { tab, interactive: true });
        const ref = (role, name) => refOn(look, new RegExp(`${role} ${quoteLabel(name).source}`), this.ref, `${role} "${name}"`);
        await c.call(r, 'batch', { tab, actions: [
          ...order.map(([name, text]) => ({ do: 'type', ref: ref('textbox', name), text, intent: 'Filling in the order' })),
          { do: 'select_option', ref: ref('combobox', 'Country'), option: country, intent: 'Choosing the country' },
          { do: 'click', ref: ref('button', 'Continue to checkout'), intent: 'Placing the order' }] });
        return c.call(r, 'snapshot', { tab, viewport: true });
      },
      async article(c, r, base) {
        const tab = await this.open(c, r, base + 'article.html');
        return (await c.call(r, 'find', { tab, text: 'Capital' })) + '\n' + (await c.call(r, 'find', { tab, text: 'Kudos' }));
      },
    },
  },
  // @playwright/mcp writes the snapshot that follows each action to a file and answers its
  // name; without a shell to read it, an agent asks browser_snapshot when it needs refs.
  '@playwright/mcp': {
    start(scratch) {
      const config = path.join(scratch, 'playwright-mcp.json');
      fs.writeFileSync(config, JSON.stringify({ browser: { browserName: 'chromium', isolated: true,
        launchOptions: { executablePath: chromium, headless: true, args: [hostRules] } } }));
      return new Client(process.execPath, [path.join(modules, '@playwright/mcp/cli.js'), '--config', config,
        '--headless', '--isolated', '--executable-path', chromium],
      { ...process.env, HOME: path.join(scratch, 'home'), TMPDIR: path.join(scratch, 'tmp') }, scratch);
    },
    async first(client, record, base) {
      await client.call(record, 'browser_navigate', { url: 'about:blank' });
      await client.call(record, 'browser_navigate', { url: base + 'start.html' });
    },
    ref: /\[ref=([a-z0-9]+)\]/,
    tasks: {
      async todo(c, r, base) {
        await c.call(r, 'browser_navigate', { url: base + 'todo.html' });
        const look = await c.call(r, 'browser_snapshot', {});
        const field = refOn(look, /textbox "What needs to be done\?"/, this.ref, 'the new item field');
        await c.call(r, 'browser_type', { element: 'New item field', target: field, text: 'Buy milk', submit: true });
        await c.call(r, 'browser_type', { element: 'New item field', target: field, text: 'Book flights', submit: true });
        const rows = await c.call(r, 'browser_snapshot', {});
        const tick = refBefore(rows, /Buy milk$/, /checkbox/, this.ref, 'the checkbox of "Buy milk"');
        await c.call(r, 'browser_click', { element: 'Checkbox of Buy milk', target: tick });
        await c.call(r, 'browser_click', { element: 'Active filter', target: refOn(rows, /link "Active"/, this.ref, 'the link "Active"') });
        return c.call(r, 'browser_find', { text: 'items left' });
      },
      async router(c, r, base) {
        await c.call(r, 'browser_navigate', { url: base + 'app/' });
        const look = await c.call(r, 'browser_snapshot', {});
        await c.call(r, 'browser_click', { element: 'Projects link', target: refOn(look, /link "Projects"/, this.ref, 'the link "Projects"') });
        const list = await c.call(r, 'browser_snapshot', {});
        await c.call(r, 'browser_click', { element: 'Orion project', target: refOn(list, /link "Orion fleet tracking"/, this.ref, 'the project "Orion"') });
        return c.call(r, 'browser_find', { text: 'Budget' });
      },
      async checkout(c, r, base) {
        await c.call(r, 'browser_navigate', { url: base + 'checkout.html' });
        const look = await c.call(r, 'browser_snapshot', {});
        const ref = (role, name) => refOn(look, new RegExp(`${role} ${quoteLabel(name).source}`), this.ref, `${role} "${name}"`);
        await c.call(r, 'browser_fill_form', { fields: [
          ...order.map(([name, value]) => ({ name, type: 'textbox', target: ref('textbox', name), value })),
          { name: 'Country', type: 'combobox', target: ref('combobox', 'Country'), value: country }] });
        await c.call(r, 'browser_click', { element: 'Continue to checkout', target: ref('button', 'Continue to checkout') });
        return c.call(r, 'browser_snapshot', {});
      },
      async article(c, r, base) {
        await c.call(r, 'browser_navigate', { url: base + 'article.html' });
        return (await c.call(r, 'browser_find', { text: 'Capital' })) + '\n' + (await c.call(r, 'browser_find', { text: 'Kudos' }));
      },
    },
  },
  // chrome-devtools-mcp has no search: it reads pages with take_snapshot.
  'chrome-devtools-mcp': {
    start(scratch) {
      return new Client(process.execPath, [path.join(modules, 'chrome-devtools-mcp/build/src/bin/chrome-devtools-mcp.js'),
        '--headless', '--isolated', '--executablePath', chromium, '--chromeArg=' + hostRules,
        ...(asRoot ? ['--chromeArg=--no-sandbox'] : []), '--no-usage-statistics', '--no-performance-crux'],
      { ...process.env, HOME: path.join(scratch, 'home'), TMPDIR: path.join(scratch, 'tmp'),
        CHROME_DEVTOOLS_MCP_NO_USAGE_STATISTICS: '1', CHROME_DEVTOOLS_MCP_NO_UPDATE_CHECKS: '1' }, scratch);
    },
    async first(client, record, base) {
      await client.call(record, 'navigate_page', { pageId: 1, type: 'url', url: 'about:blank' });
      await client.call(record, 'navigate_page', { pageId: 1, type: 'url', url: base + 'start.html' });
    },
    ref: /uid=(\S+)/,
    tasks: {
      async todo(c, r, base) {
        const page = { pageId: 1 };
        await c.call(r, 'navigate_page', { ...page, type: 'url', url: base + 'todo.html' });
        const look = await c.call(r, 'take_snapshot', page);
        const field = refOn(look, /textbox "What needs to be done\?"/, this.ref, 'the new item field');
        for (const text of ['Buy milk', 'Book flights']) {
          await c.call(r, 'fill', { ...page, uid: field, value: text });
          await c.call(r, 'press_key', { ...page, key: 'Enter' });
        }
        const rows = await c.call(r, 'take_snapshot', page);
        await c.call(r, 'click', { ...page, uid: refBefore(rows, /"Buy milk"/, /checkbox/, this.ref, 'the checkbox of "Buy milk"') });
        await c.call(r, 'click', { ...page, uid: refOn(rows, /link "Active"/, this.ref, 'the link "Active"') });
        return c.call(r, 'take_snapshot', page);
      },
      async router(c, r, base) {
        const page = { pageId: 1 };
        await c.call(r, 'navigate_page', { ...page, type: 'url', url: base + 'app/' });
        const look = await c.call(r, 'take_snapshot', page);
        await c.call(r, 'click', { ...page, uid: refOn(look, /link "Projects"/, this.ref, 'the link "Projects"') });
        const list = await c.call(r, 'take_snapshot', page);
        await c.call(r, 'click', { ...page, uid: refOn(list, /link "Orion fleet tracking"/, this.ref, 'the project "Orion"') });
        return c.call(r, 'take_snapshot', page);
      },
      async checkout(c, r, base) {
        const page = { pageId: 1 };
        await c.call(r, 'navigate_page', { ...page, type: 'url', url: base + 'checkout.html' });
        const look = await c.call(r, 'take_snapshot', page);
        const ref = (role, name) => refOn(look, new RegExp(`${role} ${quoteLabel(name).source}`), this.ref, `${role} "${name}"`);
        await c.call(r, 'fill_form', { ...page, elements: [...order.map(([name, value]) => ({ uid: ref('textbox', name), value })),
          { uid: ref('combobox', 'Country'), value: country }] });
        await c.call(r, 'click', { ...page, uid: ref('button', 'Continue to checkout') });
        return c.call(r, 'take_snapshot', page);
      },
      async article(c, r, base) {
        await c.call(r, 'navigate_page', { pageId: 1, type: 'url', url: base + 'article.html' });
        return c.call(r, 'take_snapshot', { pageId: 1 });
      },
    },
  },
};

// Does one task, answering its record with whether the answer was in what the tool returned.
async function attempt(record, work) {
  let text = '';
  try {
    text = await work();
  } catch (error) {
    record.stopped = error instanceof Stop ? error.message : `failed: ${error.message}`;
  }
  record.missing = record.stopped ? tasks[record.task].answers.map(([what]) => what)
    : tasks[record.task].answers.filter(([, pattern]) => !pattern.test(text)).map(([what]) => what);
  if (keep) fs.writeFileSync(path.join(keep, `${record.tool.replace(/[^a-z]+/gi, '-')}.${record.task}.${record.run + 1}.txt`), record.log.join('\n\n'));
}

async function cliSession(name, base, root, run, into) {
  const tool = cliTools[name];
  const scratch = scratchFor(root, name);
  const shell = new Shell(tool, scratch);
  try {
    const first = new Record(name, 'start', run);
    await tool.start(shell, first, base);
    into.start[name].push(first);
    for (const task of taskNames) {
      const record = new Record(name, task, run);
      await attempt(record, () => tool.tasks[task].call(tool, shell, record, base));
      into[task][name].push(record);
    }
  } finally {
    if (tool.stop) await Promise.race([tool.stop(shell), sleep(10000)]);
    await endSession(scratch);
  }
}

async function mcpSession(name, base, root, run, into) {
  const tool = mcpTools[name];
  const scratch = scratchFor(root, name);
  const client = tool.start(scratch);
  try {
    try {
      await client.start();
    } catch (error) {
      for (const task of taskNames) {
        const record = new Record(name, task, run);
        record.stopped = `the server did not start: ${error.message}`;
        record.missing = tasks[task].answers.map(([what]) => what);
        into[task][name].push(record);
      }
      return;
    }
    const first = new Record(name, 'start', run);
    await tool.first(client, first, base);
    into.start[name].push(first);
    for (const task of taskNames) {
      const record = new Record(name, task, run);
      await attempt(record, () => tool.tasks[task].call(tool, client, record, base));
      into[task][name].push(record);
    }
  } finally {
    await client.stop();
    await endSession(scratch);
  }
}

const median = (values) => {
  const s = [...values].sort((a, b) => a - b);
  return s.length % 2 ? s[(s.length - 1) / 2] : (s[s.length / 2 - 1] + s[s.length / 2]) / 2;
};
const whole = (value) => Math.round(value).toLocaleString('en-US');
const verdict = (ok) => (ok ? 'met' : 'missed');
// How a tool did a task over the runs: the medians, the slowest call of all, and what failed.
function summary(records) {
  const failures = records.filter((r) => r.stopped || r.missing.length || r.errors.length);
  const answered = records.filter((r) => !r.stopped && !r.missing.length).length;
  const slowest = records.reduce((a, b) => (b.slowest > a.slowest ? b : a));
  return { calls: median(records.map((r) => r.calls)), amount: median(records.map((r) => r.amount)), ms: median(records.map((r) => r.ms)),
    slowest: slowest.slowest, slowestCall: slowest.slowestCall, answered, runs: records.length,
    notes: [...new Set(failures.flatMap((r) => [...(r.stopped ? [`stopped: ${r.stopped}`] : []), ...r.errors,
      ...(r.missing.length && !r.stopped ? [`answer not returned: ${r.missing.join(', ')}`] : [])]))] };
}

function cliReport(results) {
  const names = Object.keys(cliTools);
  const peers = names.filter((n) => n !== 'nurel');
  console.log(`\nCommand lines: each task as an agent does it (median of ${runs} run${runs > 1 ? 's' : ''}; slowest: the slowest call of all runs)\n`);
  console.log('| task | tool | calls | characters read | wall ms | slowest call, ms | answered |');
  console.log('|---|---|---|---|---|---|---|');
  const notes = [];
  let fewer = true;
  let slowestOfAll = { slowest: 0 };
  const totals = Object.fromEntries(names.map((n) => [n, 0]));
  for (const task of taskNames) {
    const sums = Object.fromEntries(names.map((n) => [n, summary(results[task][n])]));
    for (const name of names) {
      const s = sums[name];
      totals[name] += s.ms;
      console.log(`| ${tasks[task].title} | ${name} | ${s.calls} | ${whole(s.amount)} | ${whole(s.ms)} | ${whole(s.slowest)} (${s.slowestCall}) | ${s.answered}/${s.runs} |`);
      for (const note of s.notes) notes.push(`${tasks[task].title}, ${name}: ${note}`);
    }
    const smaller = Math.min(...peers.map((n) => sums[n].amount));
    fewer &&= sums.nurel.amount < smaller;
    console.log(`| | nurel / smaller peer | | ${(sums.nurel.amount / smaller).toFixed(2)} | | | |`);
    if (sums.nurel.slowest > slowestOfAll.slowest) slowestOfAll = sums.nurel;
  }
  const starts = names.map((n) => `${n} ${whole(median(results.start[n].map((r) => r.ms)))} ms`);
  console.log(`\nStart of a session (the browser, then a first small page; not in the tasks' figures): ${starts.join(', ')}`);
  const faster = Math.min(...peers.map((n) => totals[n]));
  console.log(`Total of the tasks' median times: ${names.map((n) => `${n} ${whole(totals[n])} ms`).join(', ')}`);
  console.log('\nGoals:');
  console.log(`- nurel reads fewer characters than the smaller of the two peers on every task: ${verdict(fewer)}`);
  console.log(`- no nurel call takes 1 s (slowest: ${whole(slowestOfAll.slowest)} ms, ${slowestOfAll.slowestCall}): ${verdict(slowestOfAll.slowest < 1000)}`);
  console.log(`- nurel's total time at most half the faster peer's (${(totals.nurel / faster).toFixed(2)}): ${verdict(totals.nurel <= faster / 2)}`);
  if (notes.length) console.log('\nWhat failed or didn\'t answer:\n' + notes.map((n) => '- ' + n).join('\n'));
}

function mcpReport(results) {
  const names = Object.keys(mcpTools);
  const peers = names.filter((n) => n !== 'nurel mcp');
  console.log(`\nMCP: the same tasks through each server (median of ${runs} run${runs > 1 ? 's' : ''}): bytes of the tool results, calls, wall ms\n`);
  console.log(`| task | ${names.map((n) => `${n} bytes (calls, ms)`).join(' | ')} | nurel / smaller | answered |`);
  console.log(`|---|${names.map(() => '---|').join('')}---|---|`);
  const notes = [];
  let fewer = true;
  for (const task of taskNames) {
    const sums = Object.fromEntries(names.map((n) => [n, summary(results[task][n])]));
    const smaller = Math.min(...peers.map((n) => sums[n].amount));
    fewer &&= sums['nurel mcp'].amount < smaller;
    console.log(`| ${tasks[task].title} | ${names.map((n) => `${whole(sums[n].amount)} (${sums[n].calls}, ${whole(sums[n].ms)})`).join(' | ')} | ` +
      `${(sums['nurel mcp'].amount / smaller).toFixed(2)} | ${names.map((n) => `${sums[n].answered}/${sums[n].runs}`).join(', ')} |`);
    for (const name of names) for (const note of sums[name].notes) notes.push(`${tasks[task].title}, ${name}: ${note}`);
  }
  const starts = names.map((n) => `${n} ${whole(median(results.start[n].map((r) => r.ms)))} ms`);
  console.log(`\nStart of a session (the server and its browser, then a first small page): ${starts.join(', ')}`);
  console.log('\nGoal:');
  console.log(`- nurel mcp returns fewer bytes than either peer on every task: ${verdict(fewer)}`);
  if (notes.length) console.log('\nWhat failed or didn\'t answer:\n' + notes.map((n) => '- ' + n).join('\n'));
}

async function main() {
  if (keep) fs.mkdirSync(keep, { recursive: true });
  const server = await serve();
  const base = `http://127.0.0.1:${server.address().port}/`;
  const root = sessionsRoot('nurel-tasks-');
  const fresh = (names) => Object.fromEntries(['start', ...taskNames].map((t) => [t, Object.fromEntries(names.map((n) => [n, []]))]));
  const cli = fresh(Object.keys(cliTools));
  const mcp = fresh(Object.keys(mcpTools));
  console.log(`Tasks on pages of the benchmark's own, ${runs} run${runs > 1 ? 's' : ''}, every browser ${chromium}`);
  try {
    for (let run = 0; run < runs; ++run) {
      for (const [kind, tools, session, into] of [['cli', cliTools, cliSession, cli], ['mcp', mcpTools, mcpSession, mcp]]) {
        const names = Object.keys(tools);
        // The order turns each run, so that no tool always goes first.
        for (const name of names.map((_, i) => names[(i + run) % names.length])) {
          process.stderr.write(`run ${run + 1}/${runs}: ${name}${kind === 'mcp' && name === 'nurel mcp' ? '' : kind === 'mcp' ? ' (MCP)' : ''}\n`);
          await session(name, base, root, run, into);
        }
      }
    }
  } finally {
    server.close();
    for (const name of fs.readdirSync(root)) await endSession(path.join(root, name));
    fs.rmSync(root, { recursive: true, force: true });
  }
  cliReport(cli);
  mcpReport(mcp);
}

main().catch((error) => { console.error(error.stack || error.message); process.exit(1); });
