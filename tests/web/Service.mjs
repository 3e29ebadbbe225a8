// A kestrune-service over a temporary tree, and files of every kind that its web page shows.

import { spawn } from 'node:child_process';
import { cpSync, mkdirSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { deflateSync } from 'node:zlib';

export const token = 'a-token-for-tests';

/** Starts the service; `close` ends it and removes its files. */
export async function startService() {
  const folder = mkdtempSync(join(tmpdir(), 'kestrune-web-'));
  const root = join(folder, 'tree');
  mkdirSync(root);
  writeFileSync(join(folder, 'token'), token, { mode: 0o600 });
  const program = join(process.env.KESTRUNE_BIN_DIR, 'kestrune-service');
  const child = spawn(program,
    ['--root', root, '--listen', '127.0.0.1:0', '--token-file', join(folder, 'token'), '--no-sync'],
    { stdio: ['ignore', 'pipe', 'inherit'] });
  const origin = await new Promise((resolve, reject) => {
    let said = '';
    child.on('exit', (code) => reject(new Error(`the service ended with ${code}`)));
    child.stdout.on('data', (piece) => {
      said += piece;
      const address = / on (http:\S+)\n/.exec(said);
      if (address) resolve(address[1]);
    });
  });
  return {
    origin,
    folder,
    write(path, contents) {
      const file = join(root, path);
      mkdirSync(join(file, '..'), { recursive: true });
      writeFileSync(file, contents);
    },
    async close() {
      const ended = new Promise((resolve) => child.on('close', resolve));
      child.removeAllListeners('exit');
      child.kill('SIGTERM');
      await ended;
      rmSync(folder, { recursive: true });
    },
    copy: (from, path) => cpSync(from, join(root, path)),
  };
}

/** Debian's node does not have it yet. */
function crc32(bytes) {
  let crc = -1;
  for (const byte of bytes) {
    crc ^= byte;
    for (let bit = 0; bit < 8; ++bit) crc = (crc >>> 1) ^ (crc & 1 ? 0xedb88320 : 0);
  }
  return (crc ^ -1) >>> 0;
}

function numbers(...values) {
  const bytes = Buffer.alloc(4 * values.length);
  values.forEach((value, i) => bytes.writeUInt32BE(value, 4 * i));
  return bytes;
}

/** A picture with a gradient. */
export function png(width, height) {
  const rows = [];
  for (let y = 0; y < height; ++y) {
    const row = Buffer.alloc(1 + 3 * width);
    for (let x = 0; x < width; ++x) row.set([(255 * x) / width, (255 * y) / height, 160], 1 + 3 * x);
    rows.push(row);
  }
  const chunk = (kind, data) => {
    const body = Buffer.concat([Buffer.from(kind), data]);
    return Buffer.concat([numbers(data.length), body, numbers(crc32(body))]);
  };
  const head = Buffer.concat([numbers(width, height), Buffer.from([8, 2, 0, 0, 0])]);
  return Buffer.concat([Buffer.from('\x89PNG\r\n\x1a\n', 'latin1'), chunk('IHDR', head),
    chunk('IDAT', deflateSync(Buffer.concat(rows))), chunk('IEND', Buffer.alloc(0))]);
}

/** A tone of so many seconds. */
export function wav(seconds) {
  const rate = 8000;
  const samples = Buffer.alloc(seconds * rate);
  for (let i = 0; i < samples.length; ++i) samples[i] = 128 + 40 * Math.sin(i / 3);
  const head = Buffer.alloc(44);
  head.write('RIFF', 0);
  head.writeUInt32LE(36 + samples.length, 4);
  head.write('WAVEfmt ', 8);
  head.writeUInt32LE(16, 16);
  head.writeUInt16LE(1, 20);
  head.writeUInt16LE(1, 22);
  head.writeUInt32LE(rate, 24);
  head.writeUInt32LE(rate, 28);
  head.writeUInt16LE(1, 32);
  head.writeUInt16LE(8, 34);
  head.write('data', 36);
  head.writeUInt32LE(samples.length, 40);
  return Buffer.concat([head, samples]);
}

/** One page with a line of text. */
export function pdf(text) {
  const page = `BT /F1 24 Tf 40 100 Td (${text}) Tj ET`;
  const objects = ['<</Type/Catalog/Pages 2 0 R>>', '<</Type/Pages/Kids[3 0 R]/Count 1>>',
    '<</Type/Page/Parent 2 0 R/MediaBox[0 0 300 200]/Contents 4 0 R/Resources<</Font<</F1 5 0 R>>>>>>',
    `<</Length ${page.length}>>stream\n${page}\nendstream`, '<</Type/Font/Subtype/Type1/BaseFont/Helvetica>>'];
  let file = '%PDF-1.4\n';
  const places = objects.map((object, i) => {
    const place = file.length;
    file += `${i + 1} 0 obj\n${object}\nendobj\n`;
    return `${String(place).padStart(10, '0')} 00000 n \n`;
  });
  return `${file}xref\n0 6\n0000000000 65535 f \n${places.join('')}trailer<</Size 6/Root 1 0 R>>\nstartxref\n${file.length}\n%%EOF\n`;
}
