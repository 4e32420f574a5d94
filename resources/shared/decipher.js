  // ---- deciphering deployment values -------------------------------------------------------

  function utf8Bytes(text) {
    const encoded = encodeURIComponent(text);
    const bytes = [];
    for (let i = 0; i < encoded.length; i++) {
      if (encoded[i] === '%') {
        bytes.push(parseInt(encoded.substr(i + 1, 2), 16));
        i += 2;
      } else {
        bytes.push(encoded.charCodeAt(i));
      }
    }
    return bytes;
  }

  // Byte i of the stored text is XORed with byte (i mod key length) of the key; the result
  // is read as UTF-8. Broken input decodes to the empty string.
  function decipherText(bytes, key) {
    const keyBytes = utf8Bytes(key);
    if (!keyBytes.length) {
      return '';
    }
    let escaped = '';
    for (let i = 0; i < bytes.length; i++) {
      const value = (bytes[i] ^ keyBytes[i % keyBytes.length]) & 0xff;
      escaped += (value < 16 ? '%0' : '%') + value.toString(16);
    }
    try {
      return decodeURIComponent(escaped);
    } catch (_) {
      return '';
    }
  }

