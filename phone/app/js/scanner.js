// Reads a QR code with the camera: the browser's BarcodeDetector where it
// has one, else jsQR (from npm, served under /vendor/) on canvas frames.

let jsQRLoading;
function loadJsQR() {
  jsQRLoading = jsQRLoading || new Promise((resolve, reject) => {
    const script = document.createElement('script');
    script.src = new URL('vendor/jsqr/jsQR.js', document.baseURI).href;
    script.onload = () => resolve(window.jsQR);
    script.onerror = () => reject(new Error('jsQR did not load'));
    document.head.append(script);
  });
  return jsQRLoading;
}

async function makeDetector() {
  if ('BarcodeDetector' in window) {
    try {
      const formats = await window.BarcodeDetector.getSupportedFormats();
      if (formats.includes('qr_code')) {
        const detector = new window.BarcodeDetector({ formats: ['qr_code'] });
        return async (video) => (await detector.detect(video))[0]?.rawValue;
      }
    } catch {
      // fall through to jsQR
    }
  }
  const jsQR = await loadJsQR();
  const canvas = document.createElement('canvas');
  const context = canvas.getContext('2d', { willReadFrequently: true });
  return async (video) => {
    const scale = Math.min(1, 640 / Math.max(video.videoWidth, video.videoHeight));
    canvas.width = Math.round(video.videoWidth * scale);
    canvas.height = Math.round(video.videoHeight * scale);
    context.drawImage(video, 0, 0, canvas.width, canvas.height);
    const image = context.getImageData(0, 0, canvas.width, canvas.height);
    return jsQR(image.data, image.width, image.height, { inversionAttempts: 'dontInvert' })?.data;
  };
}

// Starts the camera on `video` and calls `onText` with each code read until
// stop() is called. Rejects when there is no camera or no permission.
export async function startScanner(video, onText) {
  const stream = await navigator.mediaDevices.getUserMedia({
    video: { facingMode: 'environment' }, audio: false,
  });
  video.srcObject = stream;
  await video.play().catch(() => {});
  const detect = await makeDetector();
  let running = true;
  const tick = async () => {
    if (!running) return;
    if (video.readyState >= 2) {
      try {
        const text = await detect(video);
        if (text && running) onText(text);
      } catch {
        // a frame that could not be read; the next one may
      }
    }
    if (running) setTimeout(tick, 200);
  };
  tick();
  return {
    stop() {
      running = false;
      for (const track of stream.getTracks()) track.stop();
      video.srcObject = null;
    },
  };
}
