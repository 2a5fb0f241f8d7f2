// Opens a trace-event JSON export in speedscope in headless Chromium, as a person would, and
// fails if the viewer reports an import error or shows no frame named after a zep operation.
// Saves a screenshot of the time-order view.
//
//   node check-viewer.mjs URL-OF-SPEEDSCOPE-INDEX URL-OF-JSON SCREENSHOT.png NAME...
// The NAMEs are frame names of which at least one must be listed.
import { chromium } from 'playwright-core';

const [indexUrl, jsonUrl, screenshot, ...names] = process.argv.slice(2);
const browser = await chromium.launch({
  executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
         '--disable-background-networking', '--disable-component-update', '--disable-sync'],
});
let status = 0;
try {
  const page = await browser.newPage({ viewport: { width: 1400, height: 800 } });
  const problems = [];
  page.on('pageerror', (e) => problems.push(String(e)));
  await page.goto(`${indexUrl}#profileURL=${encodeURIComponent(jsonUrl)}&title=zep`);
  await page.waitForSelector('canvas', { timeout: 30000 });
  await page.waitForTimeout(1500);
  const text = await page.evaluate(() => document.body.innerText);
  if (/error|could not|failed|unrecognized/i.test(text)) problems.push(`page says: ${text.slice(0, 300)}`);
  // The sandwich view lists every frame by name in a table.
  await page.keyboard.press('3');
  await page.waitForTimeout(800);
  const table = await page.evaluate(() => document.body.innerText);
  const found = names.filter((n) => table.includes(n));
  if (found.length === 0) problems.push(`no frame named ${names.join(', ')} in the frame table`);
  await page.keyboard.press('1');
  await page.waitForTimeout(800);
  await page.screenshot({ path: screenshot });
  if (problems.length) {
    console.error('viewer check failed:\n  ' + problems.join('\n  '));
    status = 1;
  } else {
    console.log(`speedscope shows frames ${found.join(', ')}; screenshot ${screenshot}`);
  }
} finally {
  await browser.close();
}
process.exit(status);
