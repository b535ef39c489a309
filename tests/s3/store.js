'use strict';
// The S3-compatible store of the archive tests: s3rver, with what it lacks added in front.
//
// s3rver 3.7.1 checks only the access key of a Signature Version 4 request, not the signature,
// so a client that signs with a wrong secret would pass. `checkSignature` recomputes the
// signature as S3 does (canonical request, string to sign, HMAC chain) with the secret of the
// access key and answers SignatureDoesNotMatch when they differ. `checkBody` compares a stored
// body with its Content-MD5 and x-amz-content-sha256, which s3rver ignores.
// It also writes one line per request to the request log, "METHOD /bucket/key STATUS" (the key
// as the client escaped it; " virtual-hosted" added when the bucket came in the host name), so
// that a test can count uploads.
//
// Usage: node store.js DIRECTORY PORT BUCKET REQUEST_LOG
// Listens on 127.0.0.1:PORT (0 = any free port) and prints "listening on 127.0.0.1:PORT" to
// standard error once it answers. Virtual-hosted requests name the bucket as BUCKET.s3.localhost.
const crypto = require('crypto');
const fs = require('fs');
const S3rver = require('s3rver');
const AWSAccount = require('s3rver/lib/models/account');
const S3Error = require('s3rver/lib/models/error');

// s3rver's built-in key, and a temporary one that is valid only with its session token.
const KEYS = new Map([
  ['S3RVER', { secret: 'S3RVER' }],
  ['S3RVERTEMP', { secret: 'S3RVERTEMP', token: 'S3RVERTOKEN' }],
]);
AWSAccount.DUMMY_ACCOUNT.createKeyPair('S3RVERTEMP', 'S3RVERTEMP');

function hmac(key, text) {
  return crypto.createHmac('sha256', key).update(text, 'utf8').digest();
}

function sha256Hex(text) {
  return crypto.createHash('sha256').update(text, 'utf8').digest('hex');
}

// RFC 3986 escaping as S3 applies it: everything but the unreserved characters.
function escape(text) {
  return encodeURIComponent(text).replace(
    /[!'()*]/g,
    c => '%' + c.charCodeAt(0).toString(16).toUpperCase(),
  );
}

function canonicalUri(rawPath) {
  return rawPath
    .split('/')
    .map(segment => escape(decodeURIComponent(segment)))
    .join('/');
}

function canonicalQuery(rawQuery) {
  if (!rawQuery) return '';
  return rawQuery
    .split('&')
    .map(pair => {
      const [name, ...value] = pair.split('=');
      return [
        escape(decodeURIComponent(name)),
        escape(decodeURIComponent(value.join('='))),
      ];
    })
    .sort((a, b) => (a[0] < b[0] ? -1 : a[0] > b[0] ? 1 : a[1] < b[1] ? -1 : 1))
    .map(([name, value]) => `${name}=${value}`)
    .join('&');
}

function signatureError(accessKeyId, stringToSign) {
  return new S3Error(
    'SignatureDoesNotMatch',
    'The request signature we calculated does not match the signature you provided. ' +
      'Check your key and signing method.',
    { AWSAccessKeyId: accessKeyId, StringToSign: stringToSign },
  );
}

async function checkSignature(ctx, next) {
  const authorization = ctx.get('Authorization');
  const match = /^AWS4-HMAC-SHA256 Credential=([^/]+)\/(\d{8})\/([^/]+)\/([^/]+)\/aws4_request, *SignedHeaders=([^,]+), *Signature=([0-9a-f]{64})$/.exec(
    authorization,
  );
  if (!match) {
    // s3rver itself answers requests without a signature or with a malformed one.
    return next();
  }
  const [, accessKeyId, day, region, service, signedHeaders, signature] = match;
  const key = KEYS.get(accessKeyId);
  if (key === undefined) {
    return next(); // s3rver answers InvalidAccessKeyId
  }
  if (
    key.token !== undefined &&
    (ctx.get('x-amz-security-token') !== key.token ||
      !signedHeaders.split(';').includes('x-amz-security-token'))
  ) {
    throw new S3Error('InvalidToken', 'The provided token is malformed or otherwise invalid.');
  }
  const [rawPath, rawQuery] = ctx.originalUrl.split('?');
  const headers = signedHeaders
    .split(';')
    .map(name => `${name}:${(ctx.get(name) || '').trim().replace(/ +/g, ' ')}\n`)
    .join('');
  const canonicalRequest = [
    ctx.method,
    canonicalUri(rawPath),
    canonicalQuery(rawQuery),
    headers,
    signedHeaders,
    ctx.get('x-amz-content-sha256') || sha256Hex(''),
  ].join('\n');
  const scope = `${day}/${region}/${service}/aws4_request`;
  const stringToSign = [
    'AWS4-HMAC-SHA256',
    ctx.get('x-amz-date'),
    scope,
    sha256Hex(canonicalRequest),
  ].join('\n');
  let signingKey = hmac('AWS4' + key.secret, day);
  for (const part of [region, service, 'aws4_request']) {
    signingKey = hmac(signingKey, part);
  }
  if (hmac(signingKey, stringToSign).toString('hex') !== signature) {
    throw signatureError(accessKeyId, stringToSign);
  }
  return next();
}

function requestLog(file) {
  return async function logRequest(ctx, next) {
    let status = 500;
    try {
      await next();
      status = ctx.status;
    } catch (error) {
      status = error.status || 500;
      throw error;
    } finally {
      const addressing = ctx.state.vhost ? ' virtual-hosted' : '';
      fs.appendFileSync(file, `${ctx.method} ${ctx.path} ${status}${addressing}\n`);
    }
  };
}

function bodyError(code, message) {
  const error = new S3Error(code, message);
  error.status = 400; // s3rver knows no status for XAmzContentSHA256Mismatch
  error.expose = true;
  return error;
}

// The size of `file`, or -1 while it does not exist: s3rver's write stream creates the file only
// once it opens, which may come after s3rver has answered.
async function sizeOf(file) {
  try {
    return (await fs.promises.stat(file)).size;
  } catch (error) {
    if (error.code === 'ENOENT') return -1;
    throw error;
  }
}

// s3rver answers a PUT before its write stream has flushed the object to disk, and keeps a body
// without comparing it with Content-MD5 or x-amz-content-sha256. S3 answers once the object is
// stored, and refuses (and does not keep) a body whose digest does not match.
async function checkBody(ctx, next) {
  await next();
  const simplePut =
    ctx.method === 'PUT' &&
    ctx.status === 200 &&
    ctx.params &&
    ctx.params.key &&
    Object.keys(ctx.query).length === 0 &&
    !ctx.get('x-amz-copy-source');
  if (!simplePut) return;
  const file = ctx.store.getResourcePath(ctx.params.bucket, ctx.params.key, 'object');
  const length = Number(ctx.get('Content-Length'));
  const deadline = Date.now() + 10000;
  while ((await sizeOf(file)) < length && Date.now() < deadline) {
    await new Promise(resolve => setTimeout(resolve, 1));
  }
  const body = await fs.promises.readFile(file);
  const md5 = crypto.createHash('md5').update(body).digest('base64');
  const sha256 = crypto.createHash('sha256').update(body).digest('hex');
  const payloadHash = ctx.get('x-amz-content-sha256').toLowerCase();
  let error;
  if (ctx.get('Content-MD5') && ctx.get('Content-MD5') !== md5) {
    error = bodyError(
      'BadDigest',
      'The Content-MD5 you specified did not match what we received.',
    );
  } else if (/^[0-9a-f]{64}$/.test(payloadHash) && payloadHash !== sha256) {
    error = bodyError(
      'XAmzContentSHA256Mismatch',
      "The provided 'x-amz-content-sha256' header does not match what was computed.",
    );
  }
  if (error) {
    await ctx.store.deleteObject(ctx.params.bucket, ctx.params.key);
    throw error;
  }
}

async function main() {
  const [directory, port, bucket, logFile] = process.argv.slice(2);
  const server = new S3rver({
    directory,
    address: '127.0.0.1',
    port: Number(port),
    silent: true,
    serviceEndpoint: 'localhost',
    configureBuckets: [{ name: bucket }],
  });
  // Ahead of s3rver's own middleware, so that every answer, errors included, is logged; the
  // path is logged after s3rver has moved a virtual-hosted bucket into it.
  server.middleware.unshift(requestLog(logFile), checkSignature, checkBody);
  const address = await server.run();
  process.stderr.write(`listening on 127.0.0.1:${address.port}\n`);
}

main().catch(error => {
  process.stderr.write(`${error.stack}\n`);
  process.exit(1);
});
