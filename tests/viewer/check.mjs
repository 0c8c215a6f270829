// Opens a panorama JPEG in Photo Sphere Viewer (index.html) in headless Chromium, prints the
// crop the viewer read from the file's GPano XMP as one JSON line, takes a screenshot and checks
// what it was told to expect. Run by scripts/viewer_check.sh, which installs what it needs.
//   node check.mjs --pano FILE.jpg --modules DIR/node_modules [--chromium PATH]
//        [--screenshot OUT.png] [--expect fullWidth=N ...]
// Exit status 0: every expectation held and the screenshot shows a picture; 1: not; 2: usage.
import fs from 'node:fs';
import http from 'node:http';
import { createRequire } from 'node:module';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));
const keys = ['fullWidth', 'fullHeight', 'croppedWidth', 'croppedHeight', 'croppedX', 'croppedY'];

function usage(message) {
  console.error(`check.mjs: ${message}`);
  process.exit(2);
}

const args = { chromium: '/usr/bin/chromium', expect: {} };
const argv = process.argv.slice(2);
for (let i = 0; i < argv.length; ++i) {
  const value = argv[i + 1];
  if (value === undefined) usage(`${argv[i]} needs a value`);
  switch (argv[i]) {
    case '--pano': args.pano = value; break;
    case '--modules': args.modules = value; break;
    case '--chromium': args.chromium = value; break;
    case '--screenshot': args.screenshot = value; break;
    case '--expect': {
      const [key, n] = value.split('=');
      if (!keys.includes(key) || !/^-?\d+$/.test(n || '')) usage(`bad expectation '${value}'`);
      args.expect[key] = Number(n);
      break;
    }
    default: usage(`unknown argument '${argv[i]}'`);
  }
  ++i;
}
if (!args.pano || !args.modules) usage('--pano and --modules are required');

// The page, the JPEG and the viewer's modules; nothing outside them.
const types = { '.html': 'text/html', '.js': 'text/javascript', '.mjs': 'text/javascript',
                '.css': 'text/css', '.jpg': 'image/jpeg' };
function resolve(urlPath) {
  if (urlPath === '/' || urlPath === '/index.html') return path.join(here, 'index.html');
  if (urlPath === '/panorama.jpg') return path.resolve(args.pano);
  if (urlPath.startsWith('/node_modules/')) {
    const root = path.resolve(args.modules);
    const file = path.resolve(root, '.' + urlPath.slice('/node_modules'.length));
    return file.startsWith(root + path.sep) ? file : null;
  }
  return null;
}
const server = http.createServer((req, res) => {
  const file = resolve(decodeURIComponent(new URL(req.url, 'http://x').pathname));
  if (!file || !fs.existsSync(file) || !fs.statSync(file).isFile()) {
    res.writeHead(404).end();
    return;
  }
  res.writeHead(200, { 'Content-Type': types[path.extname(file)] || 'application/octet-stream' });
  fs.createReadStream(file).pipe(res);
});
await new Promise((ok) => server.listen(0, '127.0.0.1', ok));
const url = `http://127.0.0.1:${server.address().port}/`;

// puppeteer-core from the project-local install, not from beside this file.
const puppeteer = createRequire(path.join(path.resolve(args.modules), '..', 'package.json'))(
  'puppeteer-core');
// WebGL without a GPU: ANGLE on SwiftShader, the software renderer Chromium ships.
const browser = await puppeteer.launch({
  executablePath: args.chromium,
  headless: true,
  args: ['--no-sandbox', '--use-angle=swiftshader', '--enable-unsafe-swiftshader',
         '--ignore-gpu-blocklist', '--window-size=1280,720'],
});
let status = 0;
try {
  const page = await browser.newPage();
  await page.setViewport({ width: 1280, height: 720 });
  const pageErrors = [];
  page.on('pageerror', (e) => pageErrors.push(String(e.message || e)));
  await page.goto(url, { waitUntil: 'load' });
  await page.waitForFunction('window.viewerCheck !== null', { timeout: 90000 });
  const result = await page.evaluate('window.viewerCheck');
  if (result.error) throw new Error(`the viewer failed: ${result.error}`);

  const shot = await page.screenshot({ type: 'png', encoding: 'base64' });
  if (args.screenshot) fs.writeFileSync(args.screenshot, Buffer.from(shot, 'base64'));
  // The screenshot's luma spread: a sphere drawn with the panorama, not a blank page.
  const picture = await page.evaluate(async (b64) => {
    const img = new Image();
    img.src = `data:image/png;base64,${b64}`;
    await img.decode();
    const c = document.createElement('canvas');
    c.width = img.width;
    c.height = img.height;
    const g = c.getContext('2d');
    g.drawImage(img, 0, 0);
    const d = g.getImageData(0, 0, c.width, c.height).data;
    let n = 0, sum = 0, sq = 0;
    for (let i = 0; i < d.length; i += 4 * 7) {
      const y = 0.299 * d[i] + 0.587 * d[i + 1] + 0.114 * d[i + 2];
      ++n, sum += y, sq += y * y;
    }
    const mean = sum / n;
    return { width: c.width, height: c.height, meanLuma: Math.round(mean * 10) / 10,
             lumaStdDev: Math.round(Math.sqrt(Math.max(sq / n - mean * mean, 0)) * 10) / 10 };
  }, shot);

  console.log(JSON.stringify({ panoData: result.panoData, texture: result.texture,
                               screenshot: picture }));
  for (const [key, want] of Object.entries(args.expect)) {
    if (result.panoData[key] !== want) {
      console.error(`check.mjs: ${key} is ${result.panoData[key]}, expected ${want}`);
      status = 1;
    }
  }
  // A black or flat screenshot: WebGL drew nothing.
  if (picture.lumaStdDev < 8) {
    console.error(`check.mjs: the screenshot is flat (luma ${picture.meanLuma} +- ${picture.lumaStdDev})`);
    status = 1;
  }
  if (pageErrors.length > 0) {
    console.error(`check.mjs: errors on the page: ${pageErrors.join('; ')}`);
    status = 1;
  }
} catch (e) {
  console.error(`check.mjs: ${e.message || e}`);
  status = 1;
} finally {
  await browser.close();
  server.close();
}
process.exit(status);
