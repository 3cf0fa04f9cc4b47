#pragma once

#include <string_view>

namespace tolvan::vesk::tool {

// What never changes in the page of the hub's status.

constexpr std::string_view page_style = R"css(
:root { color-scheme: light dark; --ground: #f4f6f8; --card: #ffffff; --edge: #e1e6ec; --text: #18202a;
  --quiet: #5b6878; --first: #2563eb; --second: #b45309; --good: #15803d; --fair: #b45309; --bad: #c81e1e }
@media (prefers-color-scheme: dark) { :root { --ground: #0e1217; --card: #161c24; --edge: #28313d;
  --text: #e7ebf0; --quiet: #97a4b4; --first: #6ba4ff; --second: #f0b04f; --good: #4ade80; --fair: #fbbf24;
  --bad: #f87171 } }
* { box-sizing: border-box }
body { margin: 0 auto; padding: 28px 24px 40px; max-width: 1120px; background: var(--ground);
  color: var(--text); font: 15px/1.45 system-ui, "Segoe UI", Roboto, "DejaVu Sans", sans-serif }
header { display: flex; flex-wrap: wrap; align-items: center; gap: 6px 14px; margin-bottom: 20px }
h1 { font-size: 24px; font-weight: 650; letter-spacing: -.01em; margin: 0 }
h2 { font-size: 15px; font-weight: 600; margin: 0 }
.pill { display: inline-flex; align-items: center; gap: 8px; padding: 3px 12px; border-radius: 99px;
  border: 1px solid currentcolor; font-size: 13px; font-weight: 600 }
.pill::before { content: ""; width: 8px; height: 8px; border-radius: 50%; background: currentcolor }
.good { color: var(--good) } .fair { color: var(--fair) } .bad { color: var(--bad) }
.up { margin-left: auto; color: var(--quiet); font-size: 13px }
.grid { display: grid; gap: 14px; margin-bottom: 14px }
.tiles { grid-template-columns: repeat(6, 1fr) }
@media (max-width: 900px) { .tiles { grid-template-columns: repeat(3, 1fr) } }
@media (max-width: 520px) { .tiles { grid-template-columns: repeat(2, 1fr) } }
.charts { grid-template-columns: repeat(auto-fit, minmax(min(440px, 100%), 1fr)) }
.card { background: var(--card); border: 1px solid var(--edge); border-radius: 10px; padding: 14px 16px;
  min-width: 0 }
.tile b { display: block; font-size: 26px; line-height: 1.25; font-weight: 620; letter-spacing: -.02em;
  font-variant-numeric: tabular-nums; white-space: nowrap }
.tile span, .legend { color: var(--quiet); font-size: 13px }
.tile span:first-child { font-weight: 600 }
small { font-size: 16px; font-weight: 500; color: var(--quiet); margin-left: 2px }
meter { width: 100%; height: 8px; display: block; margin-top: 6px }
.head { display: flex; flex-wrap: wrap; justify-content: space-between; gap: 2px 12px; margin-bottom: 6px }
.legend i { display: inline-block; width: 14px; height: 0; border-top: 3px solid var(--first);
  border-radius: 2px; margin: 0 5px 3px 10px }
.legend i.second { border-color: var(--second) } .legend i.mark { border-color: var(--bad) }
svg .mark { stroke: var(--bad); stroke-width: 2 }
svg { display: block; width: 100%; height: auto }
svg text { fill: var(--quiet); font-size: 12px; font-variant-numeric: tabular-nums }
svg .end { text-anchor: end } svg .middle { text-anchor: middle }
svg .grid { stroke: var(--edge) }
.line { fill: none; stroke-width: 1.8; stroke-linejoin: round; stroke-linecap: round }
.first { stroke: var(--first) } svg .second { stroke: var(--second) }
.area { fill: var(--first); opacity: .13 }
.wide { overflow-x: auto; margin-bottom: 14px }
table { width: 100%; border-collapse: collapse; font-variant-numeric: tabular-nums }
th, td { text-align: right; padding: 5px 10px; border-bottom: 1px solid var(--edge); white-space: nowrap }
tr:last-child > * { border-bottom: 0 }
th { font-weight: 600; font-size: 13px; color: var(--quiet) }
th:first-child, .facts td { text-align: left } .facts th { width: 34%; white-space: normal } .facts td { white-space: normal;
  overflow-wrap: anywhere }
footer { color: var(--quiet); font-size: 13px } a { color: var(--first) }
.lost main { opacity: .45 } #lost { display: none; padding: 8px 16px; margin-bottom: 14px; border-radius: 10px;
  color: #fff; background: #c81e1e; font-weight: 600 } .lost #lost { display: block }
)css";

// Takes the page anew and puts its content in the place of what is shown.
constexpr std::string_view page_script = R"js(
setInterval(async () => {
  if (document.hidden) return;
  try {
    const answer = await fetch(location.href, { signal: AbortSignal.timeout(5000) });
    if (!answer.ok) throw answer.status;
    const page = new DOMParser().parseFromString(await answer.text(), 'text/html');
    document.querySelector('main').replaceWith(page.querySelector('main'));
    document.body.classList.remove('lost');
  } catch { document.body.classList.add('lost') }
}, 2000);
)js";

constexpr std::string_view page_begin = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>vesk hub</title>
<link rel="icon" href="data:image/svg+xml,%3Csvg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 16 16'%3E%3Cpath d='M1 8h4l3-5v10l3-5h4' fill='none' stroke='%232563eb' stroke-width='2'/%3E%3C/svg%3E">
<noscript><meta http-equiv="refresh" content="5"></noscript>
)";

}  // namespace tolvan::vesk::tool
