qrndisk installation disk
