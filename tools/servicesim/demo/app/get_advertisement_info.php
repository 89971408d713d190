{"enable":1,"vertion":1,"ad1_image_url":"images/ad1_v1.png","ad1_local_file_name":"image/ad_images/ad1_v1.png","ad1_image_href":"https://www.orvanta.example/"}
